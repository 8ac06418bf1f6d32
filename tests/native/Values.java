// SPDX-License-Identifier: Apache-2.0
import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.nat.*;
import java.math.BigInteger;
import java.text.SimpleDateFormat;
import java.util.*;
import java.util.function.Supplier;
import java.util.regex.*;
import java.util.stream.Collectors;

/**
 * Java values from text and as text, for the native tests.
 *
 * <p>They are written null, true, 12, 0x1F, "text" (escapes as in Java; "x"*9 is nine of them),
 * bytes [31 ff] (also [00*1200]), arrays {1, 2} and {"a", 3}. Among the elements of an Object[]
 * numbers are Integers, and big[00 ff] is a BigInteger, number[00 01] one that gives those bytes as
 * they are, nothing and throwing ones that give none, date20130305 a Date, foreign a Long. Other
 * objects have the names of {@link #NAMED}.
 */
class Values {
  private static final NativePKCS11 MODULE = new NativePKCS11();
  private static final NativePKCS11Slot SLOT = new NativePKCS11Slot(MODULE, 7);
  private static final NativePKCS11Session SESSION = new NativePKCS11Session(SLOT, 5);

  /** Module, slot 7, session 5, in it the objects 9 and -9, and objects that are in none of it. */
  private static final Map<String, Object> NAMED = Map.of(
      "module", MODULE, "slot", SLOT, "session", SESSION,
      "object", new NativePKCS11Object(SESSION, 9), "object2", new NativePKCS11Object(SESSION, -9),
      "orphan", new NativePKCS11Object(null, 9),
      "negative", new NativePKCS11Object(new NativePKCS11Session(null, -5), -9),
      "foreign", 1L, "true", true, "false", false);

  private static final Pattern TOKEN = Pattern.compile(
      "\"((?:[^\"\\\\]|\\\\.)*)\"(?:\\*(\\d+))?|\\w*\\[(.*?)]|[{}]|[^\\s,{}]+", Pattern.DOTALL);

  private static BigInteger number(Supplier<byte[]> bytes) {
    return new BigInteger("1") {
      @Override
      public byte[] toByteArray() {
        return bytes.get();
      }
    };
  }

  /** One value for each letter of `types` (see methods.h), those of primitive types as a Long. */
  static Object[] parse(String types, String texts) throws Exception {
    Matcher tokens = TOKEN.matcher(texts);
    Object[] values = new Object[types.length()];
    for (int i = 0; i < values.length; i++) {
      values[i] = value(tokens, types.charAt(i));
    }
    if (tokens.find()) throw new IllegalArgumentException("not a value: " + tokens.group());
    return values;
  }

  private static Object value(Matcher tokens, char type) throws Exception {
    if (!tokens.find()) throw new IllegalArgumentException("a value is missing");
    String token = tokens.group();
    if (type == 'Z') return Boolean.parseBoolean(token) ? 1L : 0L;
    if (type == 'I' || type == 'J') return Long.decode(token);
    if (token.startsWith("\"")) {
      int times = tokens.group(2) == null ? 1 : Integer.parseInt(tokens.group(2));
      return tokens.group(1).translateEscapes().repeat(times);
    }
    if (token.startsWith("[")) return bytes(tokens.group(3));
    if (token.startsWith("number[")) return number(bytes(tokens.group(3))::clone);
    if (token.startsWith("big[")) return new BigInteger(bytes(tokens.group(3)));
    if (token.startsWith("date")) return new SimpleDateFormat("yyyyMMdd").parse(token.substring(4));
    return switch (token) {
      case "null", "}" -> null;
      case "nothing" -> number(() -> null);
      case "throwing" -> number(Optional.<byte[]>empty()::orElseThrow);
      case "{" -> elements(tokens, type);
      default -> NAMED.containsKey(token) ? NAMED.get(token) : Long.decode(token).intValue();
    };
  }

  private static Object elements(Matcher tokens, char type) throws Exception {
    List<Object> all = new ArrayList<>();
    for (Object value = value(tokens, 'L'); !tokens.group().equals("}"); value = value(tokens, 'L')) {
      all.add(value);
    }
    return type == 'A' ? all.stream().mapToInt(Integer.class::cast).toArray() : all.toArray();
  }

  private static byte[] bytes(String texts) {
    Matcher repeated = Pattern.compile("(\\w+)\\*(\\d+)").matcher(texts);
    String all = repeated.replaceAll(m -> m.group(1).repeat(Integer.parseInt(m.group(2))));
    return HexFormat.of().parseHex(all.replace(" ", ""));
  }

  /**
   * Any reference as text, arrays by their elements, handle objects with those they belong to, a
   * PKCS11Exception as its message, another one as the name of its class.
   */
  static String show(Object shown) {
    if (shown instanceof PKCS11Exception exception) return exception.getMessage();
    if (shown instanceof Throwable) return shown.getClass().getName();
    String text = Arrays.deepToString(new Object[] {shown});
    Object[] all = shown instanceof Object[] array ? array : new Object[] {shown};
    return text.substring(1, text.length() - 1) + Arrays.stream(all)
        .map(Values::owner).filter(owner -> !owner.isEmpty()).distinct()
        .collect(Collectors.joining(";"));
  }

  private static String owner(Object handle) {
    return handle instanceof NativePKCS11Object object ? " in " + named("session", object.session())
        : handle instanceof NativePKCS11Session session ? " on " + named("slot", session.slot())
        : handle instanceof NativePKCS11Slot slot ? " of " + named("module", slot.module())
        : "";
  }

  private static String named(String name, Object handle) {
    return NAMED.get(name) == handle ? "this " + name : show(handle);
  }
}
