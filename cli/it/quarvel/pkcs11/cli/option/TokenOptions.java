package it.quarvel.pkcs11.cli.option;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11TokenInfo;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.token.Connection;
import it.quarvel.pkcs11.cli.token.PKCS11Uri;
import it.quarvel.pkcs11.cli.token.Token;
import it.quarvel.pkcs11.nat.NativePKCS11Slot;
import java.util.ArrayList;
import java.util.List;
import java.util.stream.Collectors;
import picocli.CommandLine.ArgGroup;
import picocli.CommandLine.ITypeConverter;
import picocli.CommandLine.Option;
import picocli.CommandLine.TypeConversionException;

/** Which token a command is about. Nothing needs to be said when there is one only. */
public final class TokenOptions {
  private static final class Choice {
    @Option(names = "--token", paramLabel = "LABEL", description = "The token with this label.")
    String label;

    @Option(names = "--slot", paramLabel = "N", description = "The token in this slot.")
    Long slot;

    @Option(names = "--uri", paramLabel = "URI", converter = UriConverter.class,
        description = "The token, and the object, that a PKCS#11 URI (RFC 7512) names.")
    PKCS11Uri uri;
  }

  private static final class UriConverter implements ITypeConverter<PKCS11Uri> {
    @Override
    public PKCS11Uri convert(String uri) {
      try {
        return PKCS11Uri.parse(uri);
      } catch (IllegalArgumentException e) {
        throw new TypeConversionException(e.getMessage());
      }
    }
  }

  @ArgGroup(exclusive = true)
  private Choice choice = new Choice();

  /** Returns the URI, one that matches everything when none is given. */
  public PKCS11Uri uri() {
    return choice.uri == null ? PKCS11Uri.ANY : choice.uri;
  }

  /** Finds the one token that is meant. */
  public Token choose(Connection connection) throws Failure {
    List<Token> tokens = new ArrayList<>();
    PKCS11Exception unreadable = null;
    for (NativePKCS11Slot slot : connection.call("slots", () -> connection.module().slots(true))) {
      if (choice.slot != null && choice.slot != Token.number(slot)) {
        continue;
      }
      try {
        Token token = new Token(slot, slot.getTokenInfo());
        if (matches(token)) {
          tokens.add(token);
        }
      } catch (PKCS11Exception e) {
        unreadable = choice.slot != null || !isAbsent(e.errorCode()) ? e : unreadable;
      }
    }
    if (tokens.isEmpty() && unreadable != null) {
      PKCS11Exception cause = unreadable;
      return connection.call("token info", () -> {
        throw cause;
      });
    }
    if (tokens.size() != 1) {
      throw new Failure(tokens.isEmpty() ? none() : several(tokens));
    }
    // Read once more: only the slot that counts is a step of the command.
    NativePKCS11Slot slot = tokens.get(0).slot();
    return new Token(slot, connection.call("token info", slot::getTokenInfo));
  }

  /** A token that has gone, or that the module does not know, is none that could be meant. */
  private static boolean isAbsent(int code) {
    return code == CKR_TOKEN_NOT_PRESENT || code == CKR_TOKEN_NOT_RECOGNIZED
        || code == CKR_DEVICE_REMOVED;
  }

  private boolean matches(Token token) {
    PKCS11TokenInfo info = token.info();
    return (choice.slot != null || info.hasFlag(CKF_TOKEN_INITIALIZED))
        && (choice.label == null || choice.label.stripTrailing().equals(info.trimmedLabel()))
        && uri().matches(info, Token.number(token.slot()));
  }

  private String none() {
    return choice.label == null && choice.slot == null && choice.uri == null
        ? "no initialised token: insert or initialise one; \"slots\" shows what there is"
        : "no token that was asked for: \"slots\" shows what there is";
  }

  private static String several(List<Token> tokens) {
    return tokens.stream().map(Token::toString).collect(
        Collectors.joining(", ", tokens.size() + " tokens: ", "; choose one by --slot"));
  }
}
