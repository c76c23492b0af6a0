// The installed CMake package: a separate project finds trovalis with
// find_package, links trovalis::trovalis and runs against the install.
#include <gtest/gtest.h>

#include "support/sandbox.h"

namespace trv {
namespace {

TEST(Package, ConsumerProjectLinksTheInstall) {
  test::Sandbox box("[QDM]\ntex=$SELFAUTOPARENT/tex\n");
  box.write("tex/hello.tex", "");
  const std::vector<std::string> env = box.env();
  const std::string prefix = box.path("prefix"), build = box.path("consumer");
  for (const std::vector<std::string> &step : std::vector<std::vector<std::string>>{
           {TROVALIS_CMAKE, "--install", TROVALIS_BINARY_DIR, "--prefix", prefix},
           {TROVALIS_CMAKE, "-S", TROVALIS_SOURCE_DIR "/tests/package/consumer", "-B", build,
            "-DCMAKE_PREFIX_PATH=" + prefix, "-DCMAKE_C_COMPILER=" TROVALIS_C_COMPILER},
           {TROVALIS_CMAKE, "--build", build}}) {
    const test::RunResult r = test::run(step, env);
    ASSERT_EQ(r.status, 0) << step[1] << "\n" << r.out << r.err;
  }
  const test::RunResult r = test::run({build + "/consumer"}, env);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, box.path("tex/hello.tex") + "\n");
}

}  // namespace
}  // namespace trv
