/** The bare C calls of the native helper; each method makes `calls` operations. */
final class Bare {
  private Bare() {}

  static native void open(String module);

  static native long sign(
      long session, long key, long mech, byte[] data, int room, int calls);

  static native long encrypt(
      long session, long key, long mech, byte[] data, int room, int calls);

  static native long decrypt(
      long session, long key, long mech, byte[] data, int room, int calls);

  static native long search(long session, long objectClass, int batch, int calls);
}
