import java.util.Map;
import java.util.function.Function;
import java.util.function.IntFunction;

/** What is measured over growing sizes: searches and creations. */
public final class Growth implements Function<String, Map<String, IntFunction<Operation>>> {
  private final Binding binding = new Binding();

  @Override
  public Map<String, IntFunction<Operation>> apply(String module) {
    binding.apply(module);
    return Map.of(GrowthBench.SEARCH, binding::search, GrowthBench.TEMPLATE, binding::create);
  }
}
