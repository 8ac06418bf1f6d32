// SPDX-License-Identifier: Apache-2.0
/** Makes the calls of a C program, in the loops at the end of floor.cpp. */
final class Bare implements Subject {
  private final String module;

  /** Takes a module that the process has already initialised. */
  Bare(String nativeLibrary, String module) {
    System.load(nativeLibrary);
    this.module = module;
  }

  @Override
  public Loop loop(Operation op) {
    char kind = op.kind().name().charAt(0); // the floor knows L, S, E and, for all others, D
    return n -> {
      open(module); // each time: the floor has one module at a time
      if (op.kind() == Operation.Kind.SEARCH) {
        search(op.session(), Operation.BATCH, n);
      } else {
        transform(kind, op.session(), op.key(), op.mechanism(), op.in(), op.size(), n);
      }
    };
  }

  private static native void open(String module);

  /** Logs out (L), signs (S), encrypts (E) or decrypts (D). */
  private static native void transform(
      char kind, long session, long key, long mechanism, byte[] in, int room, int calls);

  private static native void search(long session, int batch, int calls);
}
