// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.option;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11Uri;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.token.Connection;
import it.quarvel.pkcs11.cli.token.Step;
import it.quarvel.pkcs11.cli.token.TokenInSlot;
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

    @Option(names = "--slot", paramLabel = "N", converter = SlotConverter.class,
        description = "The token in this slot; 0x starts a hexadecimal number.")
    Integer slot;

    @Option(names = "--uri", paramLabel = "URI", converter = UriConverter.class,
        description = "The token, and the object, that a PKCS#11 URI (RFC 7512) names.")
    PKCS11Uri uri;
  }

  private static final class SlotConverter implements ITypeConverter<Integer> {
    @Override
    public Integer convert(String text) {
      try {
        return Names.number(text);
      } catch (NumberFormatException e) {
        throw new TypeConversionException("a slot is a number, as in 12 or 0xc");
      }
    }
  }

  private static final class UriConverter implements ITypeConverter<PKCS11Uri> {
    @Override
    public PKCS11Uri convert(String uri) {
      try {
        PKCS11Uri parsed = PKCS11Uri.parse(uri);
        if (parsed.modulePath() == null) {
          return parsed;
        }
      } catch (IllegalArgumentException e) {
        throw new TypeConversionException(e.getMessage());
      }
      throw new TypeConversionException(
          "the PKCS#11 URI has a module-path: name the module by --module");
    }
  }

  @ArgGroup(exclusive = true)
  private Choice choice = new Choice();

  /** Returns the URI, one that matches everything when none is given. */
  public PKCS11Uri uri() {
    return choice.uri == null ? PKCS11Uri.ANY : choice.uri;
  }

  /** Tells whether a slot, with the token in it or null, is one of those meant. */
  public boolean matches(NativePKCS11Slot slot, TokenInSlot token) {
    return (choice.slot == null || choice.slot == slot.slotID())
        && (choice.label == null || token != null
            && choice.label.stripTrailing().equals(token.info().trimmedLabel()))
        && (choice.uri == null || token != null
            && choice.uri.matches(token.info(), TokenInSlot.number(slot)));
  }

  /** Finds the one token that is meant; who names none means one that is initialised. */
  public TokenInSlot choose(Connection connection) throws Failure {
    List<TokenInSlot> all = new ArrayList<>();
    PKCS11Exception unreadable = null;
    for (NativePKCS11Slot slot : connection.call(Step.SLOTS, () -> connection.module().slots(true))) {
      try {
        all.add(TokenInSlot.of(slot));
      } catch (PKCS11Exception e) {
        boolean named = choice.slot != null && choice.slot == slot.slotID();
        unreadable = named || choice.slot == null && !isAbsent(e.errorCode()) ? e : unreadable;
      }
    }
    List<TokenInSlot> tokens = all.stream().filter(token -> matches(token.slot(), token))
        .filter(token -> isNamed() || token.info().isInitialised()).toList();
    if (tokens.isEmpty() && unreadable != null) {
      PKCS11Exception cause = unreadable;
      return connection.call(Step.TOKEN_INFO, () -> {
        throw cause;
      });
    }
    if (tokens.size() != 1) {
      throw new Failure(tokens.isEmpty() ? none(all)
          : list(tokens.size() + " tokens: ", tokens) + "; choose one by --slot");
    }
    // Read once more: only the slot that counts is a step of the command.
    return connection.call(Step.TOKEN_INFO, () -> TokenInSlot.of(tokens.get(0).slot()));
  }

  private boolean isNamed() {
    return choice.slot != null || choice.label != null || choice.uri != null;
  }

  /** A token that has gone, or that the module does not know, is none that could be meant. */
  private static boolean isAbsent(int code) {
    return code == CKR_TOKEN_NOT_PRESENT || code == CKR_TOKEN_NOT_RECOGNIZED
        || code == CKR_DEVICE_REMOVED;
  }

  private String none(List<TokenInSlot> all) {
    return all.isEmpty() ? "no token: insert one; \"slots\" shows the slots there are"
        : list(isNamed() ? "no token that was asked for; there are: "
            : "no initialised token; name one by --token or --slot, of: ", all);
  }

  private static String list(String start, List<TokenInSlot> tokens) {
    return tokens.stream().map(TokenInSlot::toString).collect(Collectors.joining(", ", start, ""));
  }
}
