// libqor_msg and the catalogue qor.cat: every text the library asks for is
// there, parameters are substituted as documented, each message type prints
// its one line, and the catalogue is found where it should be.

#if defined(QOR_HAVE_TOOLS)

#include <gtest/gtest.h>
#include <qor/catalog.h>
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "harness.h"

namespace {

using qor_test::ChildResult;
using qor_test::run_in_child;
using qor_test::StderrCapture;
using qor_test::TempDir;

// Every message number of set "qor" that the library outputs or asks the
// text of.
std::vector<int> numbers_the_library_uses() {
    std::vector<int> n = {1, 2, 3, 11, 40};
    for (int i = 51; i <= 73; ++i) n.push_back(i);
    for (int i = 101; i <= 132; ++i) n.push_back(i);
    for (int i : {201, 202, 205, 206, 401, 402, 403, 404, 2501}) {
        n.push_back(i);
    }
    return n;
}

// A parameter list as the library passes them: texts, then a null.
struct Params {
    std::vector<std::string> texts;
    std::vector<char *> list;
    explicit Params(std::vector<std::string> t) : texts(std::move(t)) {
        for (std::string &s : texts) list.push_back(s.data());
        list.push_back(nullptr);
    }
    char **get() { return list.data(); }
};

// The text of a message through libqor's give-text operation.
std::string text(int number, char **parameters = nullptr, int *result = nullptr,
                 const char *set = "qor") {
    char buffer[1024];
    memset(buffer, 0, sizeof buffer);
    const int r =
        QOR_give_message_text(set, number, parameters, buffer, sizeof buffer);
    if (result != nullptr) *result = r;
    return buffer;
}

// Compiles a catalogue source with gencat into dir/name.
std::string make_catalogue(const TempDir &dir, const std::string &name,
                           const std::string &source) {
    const std::string msg = dir / (name + ".msg");
    const std::string cat = dir / name;
    qor_test::write_file(msg, source);
    const std::string command = std::string(QOR_GENCAT) + " -o " + cat + " " +
                                msg;
    EXPECT_EQ(system(command.c_str()), 0) << command;
    return cat;
}

// The shell's output of a command.
std::string command_output(const std::string &command) {
    std::string out;
    FILE *p = popen(command.c_str(), "r");
    if (p == nullptr) return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    pclose(p);
    return out;
}

// The lines of a command's output.
std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

class Catalogue : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(QOR_catalog_install(QOR_CATALOGUE_FILE), 0);
    }
    void TearDown() override { QOR_catalog_uninstall(); }

    // What the output of one message printed on standard error.
    static std::string line_of(const char *set, int number, int type,
                               char **parameters, int *result = nullptr) {
        StderrCapture capture;
        const int r = QOR_output_message(set, number, type, parameters);
        if (result != nullptr) *result = r;
        return capture.take();
    }
};

// Substitution, against a catalogue of test templates.
class Templates : public testing::Test {
  protected:
    void SetUp() override {
        const std::string cat = make_catalogue(dir_, "templates.cat",
            "$set 1\n"
            "900 a=$0 b=$1 c=$6\n"
            "901 cost $$5 and $x and $7 and $\n"
            "902 internal error: $0\n"
            "903 value is $0\n"
            "904 $0$0$1\n"
            "905 list; $0\n"
            "906 $0 and more, $1\n"
            "907 $0\n"
            "908 ends with a colon:\n"
            "909 $0 $1 $2 $3 $4 $5 $6\n"
            "910 $$0 is not $0\n");
        ASSERT_EQ(QOR_catalog_install(cat.c_str()), 0);
    }
    void TearDown() override { QOR_catalog_uninstall(); }
    TempDir dir_;
};

// ---- The built catalogue ---------------------------------------------------

TEST(CatalogueFile, IsBuiltBesideTheQorCommand) {
    EXPECT_EQ(std::string(QOR_CATALOGUE_FILE),
              std::string(QOR_BINARY_DIR) + "/qor.cat");
    EXPECT_TRUE(qor_test::exists(QOR_CATALOGUE_FILE));
    EXPECT_TRUE(qor_test::exists(std::string(QOR_BINARY_DIR) + "/qor"));
}

TEST_F(Catalogue, EveryNumberTheLibraryUsesHasAText) {
    for (int number : numbers_the_library_uses()) {
        int result = -2;
        const std::string t = text(number, nullptr, &result);
        EXPECT_EQ(result, 0) << "message " << number;
        EXPECT_FALSE(t.empty()) << "message " << number;
    }
}

TEST_F(Catalogue, ContextTextsReadAfterCannot) {
    EXPECT_EQ(text(116), "open a file or contents");
    EXPECT_EQ(text(101), "create a file");
    EXPECT_EQ(text(129), "find the owner name of the process");
    for (int number = 101; number <= 132; ++number) {
        const std::string t = text(number);
        ASSERT_FALSE(t.empty()) << number;
        EXPECT_TRUE(t[0] >= 'a' && t[0] <= 'z') << number << ": " << t;
        EXPECT_EQ(t.find('$'), std::string::npos) << number << ": " << t;
        EXPECT_EQ(strchr(".:;, ", t.back()), nullptr) << number << ": " << t;
    }
}

TEST_F(Catalogue, Message3WordsTheErrnoNumber) {
    Params p({"2"});
    EXPECT_EQ(text(3, p.get()), "OS error 2");
}

TEST_F(Catalogue, LocateTraceTexts) {
    EXPECT_EQ(text(205), "-- not found");
    EXPECT_EQ(text(206), "-- found");
}

TEST_F(Catalogue, StaticAllocatorMisuseTexts) {
    EXPECT_EQ(text(201),
              "a pointer given to a static allocator lies in none of its "
              "blocks");
    EXPECT_EQ(text(202),
              "a record given back to a static allocator is already free");
}

TEST_F(Catalogue, UnknownNumberGivesAnEmptyTextAndMissing) {
    int result = 0;
    EXPECT_EQ(text(999, nullptr, &result), "");
    EXPECT_EQ(result, QOR_E_MISSING);
}

TEST_F(Catalogue, OtherSetGivesAnEmptyTextAndMissing) {
    int result = 0;
    EXPECT_EQ(text(52, nullptr, &result, "app"), "");
    EXPECT_EQ(result, QOR_E_MISSING);
    EXPECT_EQ(text(52, nullptr, &result, nullptr), "");
    EXPECT_EQ(result, QOR_E_MISSING);
}

// ---- Substitution ------------------------------------------------------------

TEST_F(Templates, ParametersTakeTheirPlaces) {
    Params p({"x", "y"});
    EXPECT_EQ(text(900, p.get()), "a=x b=y c=");
}

TEST_F(Templates, MissingParametersReadAsEmpty) {
    Params p({"x"});
    EXPECT_EQ(text(900, p.get()), "a=x b= c=");
    EXPECT_EQ(text(900), "a= b= c=");
}

TEST_F(Templates, ListEndsAtItsFirstNull) {
    std::string a = "a", c = "c";
    char *list[] = {a.data(), nullptr, c.data(), nullptr};
    EXPECT_EQ(text(909, list), "a");
}

TEST_F(Templates, OnlySevenParametersAreUsed) {
    Params p({"0", "1", "2", "3", "4", "5", "6", "7"});
    EXPECT_EQ(text(909, p.get()), "0 1 2 3 4 5 6");
}

TEST_F(Templates, DoubleDollarAndOtherDollarsStayLiteral) {
    Params p({"p"});
    EXPECT_EQ(text(901, p.get()), "cost $5 and $x and $7 and $");
    EXPECT_EQ(text(910, p.get()), "$0 is not p");
}

TEST_F(Templates, TrailingEmptyParameterDropsItsSeparator) {
    EXPECT_EQ(text(902), "internal error");
    EXPECT_EQ(text(903), "value is");
    EXPECT_EQ(text(905), "list");
    Params empty({""});
    EXPECT_EQ(text(902, empty.get()), "internal error");
    Params p({"boom"});
    EXPECT_EQ(text(902, p.get()), "internal error: boom");
}

TEST_F(Templates, OnlyATrailingPlaceholderTrims) {
    EXPECT_EQ(text(908), "ends with a colon:");
    Params p({"x"});
    EXPECT_EQ(text(906, p.get()), "x and more");
    EXPECT_EQ(text(906), " and more");
}

TEST_F(Templates, ParametersAreNotExpandedAgain) {
    Params p({"$1", "no"});
    EXPECT_EQ(text(904, p.get()), "$1$1no");
}

TEST_F(Templates, TextIsCutToTheBuffer) {
    Params p({"boom"});
    char buffer[16];
    memset(buffer, 'Z', sizeof buffer);
    EXPECT_EQ(QOR_give_message_text("qor", 902, p.get(), buffer, 6), 0);
    EXPECT_STREQ(buffer, "inter");
    EXPECT_EQ(buffer[6], 'Z');

    memset(buffer, 'Z', sizeof buffer);
    EXPECT_EQ(QOR_give_message_text("qor", 902, p.get(), buffer, 1), 0);
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(buffer[1], 'Z');

    memset(buffer, 'Z', sizeof buffer);
    EXPECT_EQ(QOR_give_message_text("qor", 902, p.get(), buffer, 0), 0);
    EXPECT_EQ(buffer[0], 'Z');
}

TEST_F(Templates, CutNeverSplitsAUtf8Character) {
    Params p({"a\xc3\xa9z"});  // "aéz"
    char buffer[8];
    QOR_give_message_text("qor", 907, p.get(), buffer, 3);
    EXPECT_STREQ(buffer, "a");
    QOR_give_message_text("qor", 907, p.get(), buffer, 4);
    EXPECT_STREQ(buffer, "a\xc3\xa9");
}

// ---- One line per message ------------------------------------------------------

TEST_F(Catalogue, RecordedOsErrorLine) {
    StderrCapture capture;
    EXPECT_EQ(QOR_record_os_error(2, "/x/y", QOR_CTX_OPEN), QOR_E_MISSING);
    EXPECT_EQ(capture.take(),
              "qor: error 2052: cannot open a file or contents \"/x/y\": it "
              "does not exist (No such file or directory, OS error 2)\n");
}

TEST_F(Catalogue, RecordedOsErrorLinesForOtherStatuses) {
    StderrCapture capture;
    EXPECT_EQ(QOR_record_os_error(13, "/etc/shadow", QOR_CTX_READ),
              QOR_E_PERMISSION);
    EXPECT_EQ(QOR_record_os_error(44, "_/data/x", QOR_CTX_LOCK_OBJECT),
              QOR_E_OTHER);
    EXPECT_EQ(QOR_record_os_error(39, "/tmp/d", QOR_CTX_REMOVE_DIRECTORY),
              QOR_E_NOT_EMPTY);
    EXPECT_EQ(capture.take(),
              "qor: error 2055: cannot read from \"/etc/shadow\": permission "
              "denied (Permission denied, OS error 13)\n"
              "qor: error 2073: cannot lock an object \"_/data/x\": the "
              "operating system reported an error (Channel number out of "
              "range, OS error 44)\n"
              "qor: error 2065: cannot remove a directory \"/tmp/d\": the "
              "directory is not empty (Directory not empty, OS error 39)\n");
}

TEST_F(Catalogue, LibraryDetectedErrorHasNoOsReason) {
    StderrCapture capture;
    EXPECT_EQ(QOR_record_qor_error(QOR_E_NOT_LOCKED, "_/data/x",
                                   QOR_CTX_LOCK_OBJECT),
              QOR_E_NOT_LOCKED);
    EXPECT_EQ(QOR_record_qor_error(QOR_E_NO_OWNER, "1234",
                                   QOR_CTX_FIND_OWNER),
              QOR_E_NO_OWNER);
    EXPECT_EQ(capture.take(),
              "qor: error 2061: cannot lock an object \"_/data/x\": it is not "
              "locked as required\n"
              "qor: error 2072: cannot find the owner name of the process: no "
              "user name is known for user id 1234\n");
}

TEST_F(Catalogue, RecordedErrorWithoutTheErrnoWording) {
    Params p({"/p", "open a file or contents", "Oops", ""});
    EXPECT_EQ(line_of("qor", 52, QOR_MSG_RECORDED, p.get()),
              "qor: error 2052: cannot open a file or contents \"/p\": it does "
              "not exist (Oops)\n");
}

TEST_F(Catalogue, NullNameLeavesEveryPlaceEmpty) {
    // A null name ends the parameter list at once: context and OS reason
    // are lost with it, as the library passes them.
    StderrCapture capture;
    EXPECT_EQ(QOR_record_os_error(2, nullptr, QOR_CTX_OPEN), QOR_E_MISSING);
    EXPECT_EQ(capture.take(),
              "qor: error 2052: cannot  \"\": it does not exist\n");
}

TEST_F(Catalogue, LocationLineIsANote) {
    StderrCapture capture;
    QOR_log_location(12, "unit.cpp");
    EXPECT_EQ(capture.take(), "qor: note: at line 12 of unit.cpp\n");
}

TEST_F(Catalogue, CommandThatCouldNotRunIsANote) {
    Params p({"frobnicate -x"});
    EXPECT_EQ(line_of("qor", 71, QOR_MSG_INFORMATION, p.get()),
              "qor: note: the shell could not run the command \"frobnicate "
              "-x\"\n");
}

TEST_F(Catalogue, FreestoreRepairNote) {
    EXPECT_EQ(line_of("qor", 2501, QOR_MSG_INFORMATION, nullptr),
              "qor: note: the count of oversized chunks of a freestore was "
              "wrong and has been repaired\n");
}

TEST_F(Catalogue, IdleBlockWarnings) {
    Params p({"/d/x.body", "4096", "100", "512"});
    EXPECT_EQ(line_of("qor", 401, QOR_MSG_IDLE_WARNING, p.get()),
              "qor: warning: idle block of \"/d/x.body\" left incomplete at "
              "offset 4096: 100 of 512 bytes read\n");
    EXPECT_EQ(line_of("qor", 402, QOR_MSG_IDLE_WARNING, p.get()),
              "qor: warning: idle block of \"/d/x.body\" left incomplete at "
              "offset 4096: 100 of 512 bytes written\n");
    EXPECT_EQ(line_of("qor", 403, QOR_MSG_IDLE_WARNING, p.get()),
              "qor: warning: short read of \"/d/x.body\" at offset 4096: 100 "
              "of 512 bytes read, reading on\n");
    EXPECT_EQ(line_of("qor", 404, QOR_MSG_IDLE_WARNING, p.get()),
              "qor: warning: short write to \"/d/x.body\" at offset 4096: 100 "
              "of 512 bytes written, writing on\n");
}

TEST_F(Catalogue, OtherTypesAreMessagesWithoutTheOsReason) {
    Params p({"/p", "open a file or contents", "Oops", "OS error 1"});
    EXPECT_EQ(line_of("qor", 52, 5, p.get()),
              "qor: message: cannot open a file or contents \"/p\": it does "
              "not exist\n");
}

TEST_F(Catalogue, UnknownMessageListsItsParameters) {
    Params p({"a", "b"});
    EXPECT_EQ(line_of("qor", 999, QOR_MSG_INFORMATION, p.get()),
              "qor: note: message 999 of set \"qor\": $0=a, $1=b\n");
    EXPECT_EQ(line_of("app", 52, QOR_MSG_RECORDED, nullptr),
              "qor: error 2052: message 52 of set \"app\"\n");
}

TEST_F(Catalogue, OutputAnswersZero) {
    int result = -2;
    line_of("qor", 2501, QOR_MSG_INFORMATION, nullptr, &result);
    EXPECT_EQ(result, 0);
    line_of("qor", 999, 5, nullptr, &result);
    EXPECT_EQ(result, 0);
}

TEST_F(Catalogue, MemoryExhaustedIsFatal) {
    auto r = run_in_child(
        [] { QOR_fatal_error("qor", 11, nullptr, QOR_E_NO_MEMORY); });
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_EQ(r.err, "qor: fatal: memory exhausted\n");
}

TEST_F(Catalogue, InternalErrorNamesTheMisuse) {
    auto twice = run_in_child([] {
        int parameter = 202;
        QOR_fatal_error_msg("qor", 1, 1, &parameter, QOR_E_INTERNAL);
    });
    EXPECT_EQ(twice.exit_status, 3);
    EXPECT_EQ(twice.err,
              "qor: fatal: internal error: a record given back to a static "
              "allocator is already free\n");

    auto foreign = run_in_child([] {
        int parameter = 201;
        QOR_fatal_error_msg("qor", 1, 1, &parameter, QOR_E_INTERNAL);
    });
    EXPECT_EQ(foreign.exit_status, 3);
    EXPECT_EQ(foreign.err,
              "qor: fatal: internal error: a pointer given to a static "
              "allocator lies in none of its blocks\n");
}

TEST_F(Catalogue, InternalErrorWithoutParameter) {
    auto r = run_in_child(
        [] { QOR_fatal_error("qor", 1, nullptr, QOR_E_INTERNAL); });
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_EQ(r.err, "qor: fatal: internal error\n");
}

TEST_F(Catalogue, AssertionPrintsItsText) {
    auto r = run_in_child([] { QOR_fatal("boom", "unit", 12); });
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_EQ(r.err, "qor: fatal: File unit, Line 12: boom\n");
}

TEST_F(Catalogue, MallocOfZeroThroughTheCatalogue) {
    auto r = run_in_child([] { QOR_malloc(0); });
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_EQ(r.err.rfind("qor: fatal: File basic_space, Line ", 0), 0u)
        << r.err;
    const std::string tail =
        ": QOR_malloc called to allocate zero or negative bytes\n";
    ASSERT_GE(r.err.size(), tail.size());
    EXPECT_EQ(r.err.substr(r.err.size() - tail.size()), tail);
}

TEST_F(Catalogue, ArmedHandlerThenSecondFatalIsUntranslated) {
    auto r = run_in_child([] {
        if (setjmp(QOR_fatal_handler) == 0) {
            QOR_exception_handler_state = 1;
            QOR_fatal("boom", "unit", 12);
        }
        printf("first %u\n", QOR_exception_handler_state);
        fflush(stdout);
        const int value = setjmp(QOR_fatal_handler);
        if (value == 0) {
            QOR_exception_handler_state = 1;
            QOR_fatal_error("qor", 11, nullptr, QOR_E_NO_MEMORY);
        }
        printf("second %d\n", value);
        fflush(stdout);
        QOR_exception_handler_state = 0;
        QOR_fatal("again", "unit", 13);
    });
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_EQ(r.out, "first 2\nsecond 2011\n");
    EXPECT_EQ(r.err,
              "qor: fatal: File unit, Line 12: boom\n"
              "QOR_fatal_error - Untranslated message: set=qor, number=11, "
              "type=4\n"
              "File unit, Line 13: again\n");
}

// ---- Formatting without printing ---------------------------------------------

TEST_F(Catalogue, FormatGivesTheLineWithoutItsEnd) {
    Params p({"/x/y", "open a file or contents", "No such file or directory",
              "OS error 2"});
    char line[256];
    const std::string expected =
        "qor: error 2052: cannot open a file or contents \"/x/y\": it does "
        "not exist (No such file or directory, OS error 2)";
    EXPECT_EQ(QOR_catalog_format_message("qor", 52, QOR_MSG_RECORDED, p.get(),
                                         line, sizeof line),
              static_cast<int>(expected.size()));
    EXPECT_EQ(std::string(line), expected);
}

TEST_F(Catalogue, FormatIsBoundedAndGivesTheWholeLength) {
    char line[12];
    memset(line, 'Z', sizeof line);
    EXPECT_EQ(QOR_catalog_format_message("qor", 11, QOR_MSG_FATAL, nullptr,
                                         line, 10),
              static_cast<int>(strlen("qor: fatal: memory exhausted")));
    EXPECT_STREQ(line, "qor: fata");
    EXPECT_EQ(line[10], 'Z');
    EXPECT_EQ(QOR_catalog_format_message("qor", 11, QOR_MSG_FATAL, nullptr,
                                         nullptr, 0),
              static_cast<int>(strlen("qor: fatal: memory exhausted")));
}

TEST(CatalogueFormat, WithoutACatalogueNumbersGetTheGenericText) {
    char line[128];
    QOR_catalog_format_message("qor", 52, QOR_MSG_RECORDED, nullptr, line,
                               sizeof line);
    EXPECT_STREQ(line, "qor: error 2052: message 52 of set \"qor\"");
    QOR_catalog_format_message("File unit, Line 1: x", -1, QOR_MSG_FATAL,
                               nullptr, line, sizeof line);
    EXPECT_STREQ(line, "qor: fatal: File unit, Line 1: x");
}

// ---- Finding, replacing and removing the catalogue ---------------------------

TEST(CatalogueInstall, RegistersBothCallbacks) {
    ASSERT_EQ(QOR_catalog_install(QOR_CATALOGUE_FILE), 0);
    EXPECT_NE(QOR_registered_callbacks[QOR_SLOT_OUTPUT_MESSAGE].procedure,
              nullptr);
    EXPECT_NE(QOR_registered_callbacks[QOR_SLOT_GIVE_MESSAGE_TEXT].procedure,
              nullptr);
    EXPECT_EQ(QOR_registered_callbacks[QOR_SLOT_DISC_FULL_HANDLER].procedure,
              nullptr);
    QOR_catalog_uninstall();
}

TEST(CatalogueInstall, MissingCatalogueGives10009AndTheLibraryFallback) {
    EXPECT_EQ(QOR_catalog_install("/nonexistent-qor/qor.cat"),
              QOR_MSG_UNAVAILABLE);
    EXPECT_EQ(QOR_catalog_install(""), QOR_MSG_UNAVAILABLE);
    for (int slot = 0; slot < QOR_CALLBACK_SLOTS; ++slot) {
        EXPECT_EQ(QOR_registered_callbacks[slot].procedure, nullptr);
    }
    StderrCapture capture;
    EXPECT_EQ(QOR_record_os_error(2, "/x/y", QOR_CTX_OPEN), QOR_E_MISSING);
    EXPECT_EQ(capture.take(),
              "Error: QOR Message System unavailable - give_message_text\n"
              "Error: QOR Message System unavailable - give_message_text\n"
              "Error: QOR Message System unavailable - output_message\n"
              "Untranslated message: set=qor, number=52, type=71, $0=/x/y, "
              "$1=, $2=No such file or directory, $3=\n");
}

TEST(CatalogueInstall, FailureKeepsTheEarlierCatalogue) {
    ASSERT_EQ(QOR_catalog_install(QOR_CATALOGUE_FILE), 0);
    EXPECT_EQ(QOR_catalog_install("/nonexistent-qor/qor.cat"),
              QOR_MSG_UNAVAILABLE);
    EXPECT_EQ(text(116), "open a file or contents");
    QOR_catalog_uninstall();
}

TEST(CatalogueInstall, InstallingAgainReplacesTheCatalogue) {
    TempDir dir;
    const std::string other =
        make_catalogue(dir, "other.cat", "$set 1\n116 open (other)\n");
    ASSERT_EQ(QOR_catalog_install(QOR_CATALOGUE_FILE), 0);
    ASSERT_EQ(QOR_catalog_install(other.c_str()), 0);
    EXPECT_EQ(text(116), "open (other)");
    int result = 0;
    EXPECT_EQ(text(52, nullptr, &result), "");
    EXPECT_EQ(result, QOR_E_MISSING);
    QOR_catalog_uninstall();
}

TEST(CatalogueInstall, NameWithoutSlashIsAFileNotACatalogueName) {
    TempDir dir;
    make_catalogue(dir, "qor", "$set 1\n116 open (beside)\n");
    TempDir elsewhere;
    make_catalogue(elsewhere, "qor", "$set 1\n116 open (nlspath)\n");
    auto r = run_in_child([&] {
        setenv("NLSPATH", (elsewhere.path() + "/%N").c_str(), 1);
        if (chdir(dir.path().c_str()) != 0) _exit(10);
        if (QOR_catalog_install("qor") != 0) _exit(11);
        printf("%s\n", text(116).c_str());
    });
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, "open (beside)\n");
}

TEST(CatalogueInstall, NlspathIsHonoured) {
    TempDir dir;
    make_catalogue(dir, "qor.cat", "$set 1\n52 nothing at \"$0\" (nlspath)\n");
    auto r = run_in_child([&] {
        setenv("NLSPATH", (dir.path() + "/%N.cat").c_str(), 1);
        if (QOR_catalog_install(nullptr) != 0) _exit(10);
        Params p({"/p"});
        QOR_output_message("qor", 52, QOR_MSG_RECORDED, p.get());
    });
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.err, "qor: error 2052: nothing at \"/p\" (nlspath)\n");
}

// In a child: QOR_CATALOG set to `chosen`, NLSPATH to <dir>/%N.cat, then
// QOR_catalog_install(NULL); prints message 116's text, or the status.
ChildResult install_from_environment(const std::string &chosen,
                                     const TempDir &dir) {
    return run_in_child([&] {
        setenv("QOR_CATALOG", chosen.c_str(), 1);
        setenv("NLSPATH", (dir.path() + "/%N.cat").c_str(), 1);
        const int status = QOR_catalog_install(nullptr);
        if (status != 0) {
            printf("%d\n", status);
        } else {
            printf("%s\n", text(116).c_str());
        }
    });
}

// QOR_CATALOG, when set and not empty, names the one file used, before
// NLSPATH; a file that cannot be opened is a failure, not a fallback.
TEST(CatalogueInstall, QorCatalogChoosesTheFile) {
    TempDir dir;
    make_catalogue(dir, "mine.cat", "$set 1\n116 open (chosen)\n");
    make_catalogue(dir, "qor.cat", "$set 1\n116 open (nlspath)\n");
    const struct {
        std::string chosen;
        std::string out;
    } rows[] = {
        {dir / "mine.cat", "open (chosen)\n"},
        {dir / "missing.cat", "10009\n"},
        {"", "open (nlspath)\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE("QOR_CATALOG=" + row.chosen);
        const ChildResult r = install_from_environment(row.chosen, dir);
        EXPECT_EQ(r.exit_status, 0);
        EXPECT_EQ(r.out, row.out);
    }
}

// A copy of libqor_msg placed in <root>/lib, loaded from there, with or
// without a catalogue where an install puts it relative to the library.
ChildResult install_from_moved_library(bool with_catalogue) {
    TempDir root;
    const std::string lib = root.path() + "/lib";
    EXPECT_EQ(mkdir(lib.c_str(), 0755), 0);
    const std::string copy = lib + "/libqor_msg.so.1";
    EXPECT_EQ(system(("cp " + std::string(QOR_MSG_LIBRARY) + " " + copy).c_str()),
              0);
    if (with_catalogue) {
        const std::string name = std::string("lib/") + QOR_CATALOGUE_FROM_LIBDIR;
        const std::string folder = root / name.substr(0, name.rfind('/'));
        EXPECT_EQ(system(("mkdir -p " + folder).c_str()), 0);
        make_catalogue(root, name, "$set 1\n116 open (beside the library)\n");
    }
    TempDir empty;
    return run_in_child([&] {
        unsetenv("QOR_CATALOG");
        setenv("NLSPATH", (empty.path() + "/%N.cat").c_str(), 1);
        void *handle = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) _exit(20);
        auto install = reinterpret_cast<int (*)(const char *)>(
            dlsym(handle, "QOR_catalog_install"));
        if (install == nullptr) _exit(21);
        const int status = install(nullptr);
        if (status != 0) {
            printf("%d\n", status);
            fflush(stdout);
            _exit(1);
        }
        printf("%s\n", text(116).c_str());
    });
}

TEST(CatalogueInstall, InstalledCatalogueIsFoundBesideTheLibrary) {
    const ChildResult r = install_from_moved_library(true);
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, "open (beside the library)\n");
}

TEST(CatalogueInstall, NoCatalogueAnywhereIsAFailure) {
    const ChildResult r = install_from_moved_library(false);
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "10009\n");
}

void count_output(void *, void *client, void *call) {
    ++*static_cast<int *>(client);
    static_cast<QOR_output_message_record *>(call)->result = 0;
}

TEST(CatalogueInstall, UninstallRemovesOnlyItsOwnCallbacks) {
    ASSERT_EQ(QOR_catalog_install(QOR_CATALOGUE_FILE), 0);
    // The application takes the output over afterwards.
    int outputs = 0;
    QOR_set_callback(nullptr, "QOR_OUTPUT_MESSAGE", count_output, &outputs);
    QOR_catalog_uninstall();
    EXPECT_EQ(QOR_registered_callbacks[QOR_SLOT_GIVE_MESSAGE_TEXT].procedure,
              nullptr);
    EXPECT_EQ(QOR_registered_callbacks[QOR_SLOT_OUTPUT_MESSAGE].procedure,
              &count_output);
    QOR_log_location(3, "f");
    EXPECT_EQ(outputs, 1);
    QOR_set_callback(nullptr, "QOR_OUTPUT_MESSAGE", nullptr, nullptr);
}

TEST(CatalogueInstall, UninstallLeavesTheLibraryFallback) {
    ASSERT_EQ(QOR_catalog_install(QOR_CATALOGUE_FILE), 0);
    QOR_catalog_uninstall();
    QOR_catalog_uninstall();  // twice is harmless
    for (int slot = 0; slot < QOR_CALLBACK_SLOTS; ++slot) {
        EXPECT_EQ(QOR_registered_callbacks[slot].procedure, nullptr);
    }
    StderrCapture capture;
    char buffer[8] = "x";
    EXPECT_EQ(QOR_give_message_text("qor", 116, nullptr, buffer, 8),
              QOR_MSG_UNAVAILABLE);
    EXPECT_STREQ(buffer, "x");
    EXPECT_EQ(capture.take(),
              "Error: QOR Message System unavailable - give_message_text\n");
}

// ---- The shared object ---------------------------------------------------------

TEST(CatalogueLibrary, ExportsOnlyQorNames) {
    const std::string symbols = command_output(
        std::string("nm -D --defined-only ") + QOR_MSG_LIBRARY);
    ASSERT_NE(symbols.find("QOR_catalog_install"), std::string::npos);
    int count = 0;
    for (const std::string &line : lines_of(symbols)) {
        const size_t name = line.rfind(' ');
        if (line.empty() || name == std::string::npos) continue;
        ++count;
        EXPECT_EQ(line.compare(name + 1, 4, "QOR_"), 0) << line;
    }
    EXPECT_GE(count, 3);
}

TEST(CatalogueLibrary, NeedsOnlyLibqorAndLibc) {
    const std::string dynamic =
        command_output(std::string("readelf -d ") + QOR_MSG_LIBRARY);
    EXPECT_NE(dynamic.find("Library soname: [libqor_msg.so.1]"),
              std::string::npos)
        << dynamic;
    // A sanitizer build links its runtimes and what they need.
    const bool sanitized = dynamic.find("[libasan") != std::string::npos ||
                           dynamic.find("[libubsan") != std::string::npos;
    size_t at = 0;
    int needed = 0;
    while ((at = dynamic.find("Shared library: [", at)) != std::string::npos) {
        at += strlen("Shared library: [");
        const std::string lib = dynamic.substr(at, dynamic.find(']', at) - at);
        ++needed;
        const bool allowed = lib == "libqor.so.1" || lib == "libc.so.6" ||
                             (sanitized && (lib.rfind("libasan", 0) == 0 ||
                                            lib.rfind("libubsan", 0) == 0 ||
                                            lib == "libstdc++.so.6" ||
                                            lib == "libm.so.6"));
        EXPECT_TRUE(allowed) << lib;
    }
    EXPECT_GE(needed, 2);
}

TEST(CatalogueLibrary, UsesNothingOfTheCxxRuntime) {
    const std::string undefined = command_output(
        std::string("nm -D --undefined-only ") + QOR_MSG_LIBRARY);
    int count = 0;
    for (const std::string &line : lines_of(undefined)) {
        const std::string name = line.substr(line.rfind(' ') + 1);
        if (name.empty()) continue;
        ++count;
        const bool cxx = name.rfind("_Z", 0) == 0 ||
                         name.rfind("__gxx_", 0) == 0 ||
                         name.rfind("_Unwind", 0) == 0 ||
                         (name.rfind("__cxa_", 0) == 0 &&
                          name.rfind("__cxa_finalize", 0) != 0);
        EXPECT_FALSE(cxx) << name;
    }
    EXPECT_GE(count, 3);  // at least catopen, catgets, catclose
}

}  // namespace

#endif  // QOR_HAVE_TOOLS
