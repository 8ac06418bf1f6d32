/** The bare C calls that stand beside the floor, in loops of their own. */
final class Bare implements Subject {
  /** Opens the module that the process has already initialised. */
  Bare(String nativeLibrary, String module) {
    System.load(nativeLibrary);
    open(module);
  }

  @Override
  public Loop loop(Operation op) {
    char kind = op.kind().name().charAt(0);
    return op.kind() == Operation.Kind.SEARCH
        ? n -> search(op.session(), Operation.BATCH, n)
        : n -> transform(kind, op.session(), op.key(), op.mechanism(), op.in(), op.size(), n);
  }

  private static native void open(String module);

  /** Signs, encrypts or decrypts, by the first letter. */
  private static native void transform(
      char kind, long session, long key, long mechanism, byte[] in, int room, int calls);

  private static native void search(long session, int batch, int calls);
}
