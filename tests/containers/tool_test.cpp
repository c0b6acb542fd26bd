// The qor command's containers subcommand and tour step, run as the built
// program (skipped when the tools are not built).
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "harness.h"

namespace {

using qor_test::run_qor;

}  // namespace

TEST(QorAssocHash, ShowsHashBucketAndTheBytesHashed) {
    if (!qor_test::qor_built()) GTEST_SKIP() << "qor not built";
    auto r = run_qor({"assoc-hash", "ab", "key0000012",
                      "/home/user/projects/qor/src/module001/file00101.c",
                      "/home/user/projects/qor/src/module002/file00202.c"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out,
              "ab\t0x000001e6\tbucket 6 of 32\thashed \"ab\"\n"
              "key0000012\t0x02333ff6\tbucket 22 of 32\thashed \"key0000012\"\n"
              "/home/user/projects/qor/src/module001/file00101.c\t0x258132fb0\t"
              "bucket 16 of 32\thashed \"ts/qor/src/mod\"\n"
              "/home/user/projects/qor/src/module002/file00202.c\t0x258132fb0\t"
              "bucket 16 of 32\thashed \"ts/qor/src/mod\"\n");
    EXPECT_EQ(r.err, "");
}

TEST(QorAssocHash, WithoutKeysPrintsUsage) {
    if (!qor_test::qor_built()) GTEST_SKIP() << "qor not built";
    auto r = run_qor({"assoc-hash"});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_EQ(r.err, "qor assoc-hash: missing operand\n"
                     "usage: qor assoc-hash KEY...\n"
                     "Try 'qor assoc-hash --help' for more information.\n");
}

TEST(QorTour, ContainersStepShowsScansAtomsAndSequences) {
    if (!qor_test::qor_built()) GTEST_SKIP() << "qor not built";
    auto r = run_qor({"tour"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_NE(r.out.find("== Associative containers: hash tables, scans and "
                         "atoms ==\n"),
              std::string::npos);
    EXPECT_NE(r.out.find("  bucket  9: banana  7\n             (removed)\n"
                         "  bucket 21: apple   3\n"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("ASSOC table report for fruit :-\n"
                         "Hash size: 32.\t\tEntries: 4.\n"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("  red   -> 1\n  green -> 2\n  blue  -> 3\n"
                         "  red   -> 1\n  green -> 2\n"
                         "  a unique atom (QOR_unique_atom) -> 4, with no "
                         "string: null\n"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("  tue = 2\n  (removed mon, which the sequence will "
                         "not return)\n  thu = 4\n  wed = 3\n  fri = 5\n"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("0\ttue\t87824\n1\tthu\t87489\n2\twed\t89578\n"
                         "5\tfri\t77541\n"),
              std::string::npos)
        << r.out;
}
