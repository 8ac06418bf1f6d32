/** One measured operation of one subject. */
@FunctionalInterface
public interface Operation {
  /**
   * Runs it.
   *
   * @param calls how often
   * @return something that depends on every result, so that none can be optimised away
   */
  long run(int calls) throws Exception;
}
