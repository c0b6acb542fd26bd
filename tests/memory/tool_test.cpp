// The memory step of "qor tour", run as the built program.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "harness.h"

namespace {

qor_test::ChildResult run_tour() { return qor_test::run_qor({"tour"}); }

using qor_test::qor_built;

TEST(QorTourMemory, TellsWhatHappensOnStandardOutput) {
    if (!qor_built()) GTEST_SKIP() << "the qor command is not built";
    auto r = run_tour();
    EXPECT_EQ(r.exit_status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("== Memory: the freestore and the static allocator "
                         "==\n"
                         "A freestore of 64-byte chunks (QOR_FS_initialise).\n"
                         "  copied \"alpha\" and \"beta\" into it\n"
                         "  saved a mark (QOR_FS_save)\n"
                         "  joined \"alpha/beta/gamma\" (QOR_FS_cat_strings)\n"
                         "  took 60 bytes (a new chunk) and 100 bytes (an "
                         "oversized chunk: count 1)\n"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("  restored the mark (QOR_FS_restore): \"alpha\" and "
                         "\"beta\" are still there,\n  the oversized chunk is "
                         "freed (count 0)"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("  released record 1 and allocated again: record 1 "
                         "came back (lowest free first)\n"
                         "  QOR_SA_next counts 3 records in use\n"),
              std::string::npos)
        << r.out;
}

TEST(QorTourMemory, DumpsAppearInTheTourOutputInOrder) {
    if (!qor_built()) GTEST_SKIP() << "the qor command is not built";
    auto r = run_tour();
    EXPECT_NE(r.out.find("\t\t1\t64\t36\t28\n"
                         "\t\t2\t64\t60\t4\n"
                         "\t\t3\t100\t100\t0\n"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("Number of Free Chunks      : 1\n"
                         "Free Chunk Space Allocated : 80\t(Basic : 64, "
                         "Overhead : 16)\n"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("*** Dumping Static Allocator ***\n"
                         "Structure Size    : 24\n"
                         "Free Entries      : 61\n"
                         "Blocks in use     : 1\n"
                         "Blocks Allocated  : 128\n"
                         "Initial Entries   : 64\n"
                         "Extension Entries : 64\n"
                         "Bitmaps Allocated : 256\n"
                         "First bitmap free : no. 0\n"
                         "Value : 0\n"
                         "*** Finished Dump of Static Allocator ***\n"),
              std::string::npos)
        << r.out;
    // Each dump follows the narration that announces it.
    const size_t told = r.out.find("  the dump, verbose (QOR_FS_dump):\n");
    EXPECT_EQ(r.out.find("*** Dump of Freestore Allocator ***"), told + 35)
        << r.out;
    EXPECT_EQ(r.err, "");
}

}  // namespace
