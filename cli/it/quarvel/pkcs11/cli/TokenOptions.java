package it.quarvel.pkcs11.cli;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11TokenInfo;
import it.quarvel.pkcs11.nat.NativePKCS11Slot;
import java.util.ArrayList;
import java.util.List;
import java.util.stream.Collectors;
import picocli.CommandLine.ArgGroup;
import picocli.CommandLine.ITypeConverter;
import picocli.CommandLine.Option;

/** Which token a command is about. Nothing needs to be said when there is one only. */
final class TokenOptions {
  private static final class Choice {
    @Option(names = "--token", paramLabel = "LABEL", description = "The token with this label.")
    String label;

    @Option(names = "--slot", paramLabel = "N", description = "The token in this slot.")
    Long slot;

    @Option(names = "--uri", paramLabel = "URI", converter = UriConverter.class,
        description = "The token, and the object, that a PKCS#11 URI (RFC 7512) names.")
    Pkcs11Uri uri;
  }

  private static final class UriConverter implements ITypeConverter<Pkcs11Uri> {
    @Override
    public Pkcs11Uri convert(String uri) {
      return Pkcs11Uri.parse(uri);
    }
  }

  @ArgGroup(exclusive = true)
  private Choice choice = new Choice();

  /** Returns the URI, one that matches everything when none is given. */
  Pkcs11Uri uri() {
    return choice.uri == null ? Pkcs11Uri.ANY : choice.uri;
  }

  /** Finds the one token that is meant. */
  Token choose(Connection connection) throws Failure {
    Steps steps = connection.steps();
    List<Token> tokens = new ArrayList<>();
    PKCS11Exception unreadable = null;
    for (NativePKCS11Slot slot : steps.call("slots", () -> connection.module().slots(true))) {
      try {
        if (choice.slot == null || choice.slot == Token.number(slot)) {
          tokens.addAll(matching(slot));
        }
      } catch (PKCS11Exception e) {
        unreadable = choice.slot != null || !isAbsent(e.errorCode()) ? e : unreadable;
      }
    }
    if (tokens.isEmpty() && unreadable != null) {
      return steps.call("token info", failure(unreadable));
    }
    if (tokens.size() != 1) {
      throw new Failure(tokens.isEmpty() ? none() : several(tokens));
    }
    // Read once more: only the slot that counts is a step of the command.
    NativePKCS11Slot slot = tokens.get(0).slot();
    return new Token(slot, steps.call("token info", slot::getTokenInfo));
  }

  private static Steps.Call<Token> failure(PKCS11Exception cause) {
    return () -> {
      throw cause;
    };
  }

  private List<Token> matching(NativePKCS11Slot slot) throws PKCS11Exception {
    PKCS11TokenInfo info = slot.getTokenInfo();
    return matches(slot, info) ? List.of(new Token(slot, info)) : List.of();
  }

  /** A token that has gone, or that the module does not know, is none that could be meant. */
  private static boolean isAbsent(int code) {
    return code == CKR_TOKEN_NOT_PRESENT || code == CKR_TOKEN_NOT_RECOGNIZED
        || code == CKR_DEVICE_REMOVED;
  }

  private boolean matches(NativePKCS11Slot slot, PKCS11TokenInfo info) {
    return (choice.slot != null || info.hasFlag(CKF_TOKEN_INITIALIZED))
        && same(choice.label, info.label()) && same(uri().text("token"), info.label())
        && same(uri().text("manufacturer"), info.manufacturerID())
        && same(uri().text("model"), info.model())
        && same(uri().text("serial"), info.serialNumber())
        && same(uri().text("slot-id"), Long.toString(Token.number(slot)));
  }

  private static boolean same(String wanted, String found) {
    return wanted == null || wanted.stripTrailing().equals(found.stripTrailing());
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
