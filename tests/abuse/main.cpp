// One test of those, named as the only argument: "abuse_tests Abuse.SlowHeads".
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
  // The daemon inherits this: what it has freed must not be taken for what it keeps.
  setenv("ASAN_OPTIONS",
         "quarantine_size_mb=1:thread_local_quarantine_size_kb=64:allocator_release_to_os_interval_ms=200", 0);
  setvbuf(stdout, nullptr, _IOLBF, 0);
  testing::InitGoogleTest(&argc, argv);
  if (argc == 2) testing::GTEST_FLAG(filter) = argv[1];
  const int result = RUN_ALL_TESTS();
  if (testing::UnitTest::GetInstance()->test_to_run_count() > 0) return result;
  fprintf(stderr, "there is no test '%s'\n", argc > 1 ? argv[1] : "");
  return 2;
}
