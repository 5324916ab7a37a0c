// SPDX-License-Identifier: Apache-2.0
// Runs the tests of the library for Java, all or those whose names are arguments: a line for each,
// and exit status 1 when one has failed. Each is a situation and what is to come of it.
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;

final class Suite {
  /** One test; what it throws is its failure. */
  interface Test {
    void run() throws Exception;
  }

  private final Map<String, Test> tests = new LinkedHashMap<>();

  void add(String name, Test test) {
    tests.put(name, test);
  }

  static void check(boolean holds, Object... what) {
    if (!holds) {
      StringBuilder said = new StringBuilder();
      for (Object part : what) {
        said.append(part).append(' ');
      }
      throw new AssertionError(said.toString());
    }
  }

  static void same(Object expected, Object found) {
    check(expected.equals(found), "expected", expected, "but found", found);
  }

  /** What `call` throws, which has to be of that class. */
  static <T extends Throwable> T thrown(Class<T> expected, Test call) {
    try {
      call.run();
    } catch (Throwable found) {
      if (expected.isInstance(found)) {
        return expected.cast(found);
      }
      throw new AssertionError("expected " + expected + " but found " + found, found);
    }
    throw new AssertionError("nothing was thrown, expected " + expected);
  }

  public static void main(String[] arguments) {
    Suite suite = new Suite();
    HeaderTest.addTo(suite);
    WrongUsesTest.addTo(suite);
    EventsTest.addTo(suite);
    FramesTest.addTo(suite);
    ThreadsTest.addTo(suite);
    ProcessTest.addTo(suite);
    List<String> wanted = List.of(arguments);
    int failed = 0;
    for (Map.Entry<String, Test> test : suite.tests.entrySet()) {
      if (!wanted.isEmpty() && !wanted.contains(test.getKey())) {
        continue;
      }
      long beganNs = System.nanoTime();
      String result = "ok";
      try {
        test.getValue().run();
      } catch (Throwable failure) {
        result = "FAILED";
        failure.printStackTrace(System.out);
        ++failed;
      }
      System.out.printf(
          "%-52s %-6s %5d ms%n", test.getKey(), result, (System.nanoTime() - beganNs) / 1_000_000);
    }
    System.exit(failed == 0 ? 0 : 1);
  }
}
