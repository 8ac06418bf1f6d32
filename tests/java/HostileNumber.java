import java.math.BigInteger;

/** A number whose bytes are not to be had, each mode in its way. */
class HostileNumber extends BigInteger {
  private static final long serialVersionUID = 1L;
  private final int mode;

  HostileNumber(int mode) {
    super("1");
    this.mode = mode;
  }

  @Override
  public byte[] toByteArray() {
    return switch (mode) {
      case 0 -> null;
      case 1 -> new byte[0];
      default -> throw new IllegalStateException();
    };
  }
}
