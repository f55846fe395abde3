#include "common/diagnostics.h"

#include <unistd.h>

#include <fstream>
#include <sstream>

#include "common/text.h"
#include "support/records.h"

using namespace mirvok;

TEST(Diagnostics, TraceLinesNestByTheirFormats) {
    EXPECT_EQ(output_of([] {
                  TRACE_PRINT("Entering %s", "unseen");
                  set_debug(7);
                  TRACE_PRINT("before");
                  TRACE_PRINT("Entering %s", "outer");
                  TRACE_PRINT("Entering %s", "inner");
                  TRACE_PRINT("%s", "Entering as an argument");
                  TRACE_PRINT("Entering and Exiting %d", 1);
                  TRACE_PRINT("Exiting %s", "inner");
                  TRACE_PRINT("Exiting %s", "outer");
                  TRACE_PRINT("after");
                  set_debug(0);
                  TRACE_PRINT("unseen");
              }),
              "STORAGE_LIB: before\n"
              "STORAGE_LIB: Entering outer\n"
              "STORAGE_LIB:    Entering inner\n"
              "STORAGE_LIB:    Entering as an argument\n"
              "STORAGE_LIB:       Entering and Exiting 1\n"
              "STORAGE_LIB:    Exiting inner\n"
              "STORAGE_LIB: Exiting outer\n"
              "STORAGE_LIB: after\n");
}

TEST(Diagnostics, HexDumpRowsAndFill) {
    const uint8_t data[] = {0x12, 0x41, 0x00, 0x1F, 0x20, 0x7E, 0x7F, 0x80, 0xFF,
                            0x30, 0x31, 0x32, 0x33, 0x34, 0x35, 0x36, 0x37};
    const std::string row = "  0000  12 41 00 1F 20 7E 7F 80 FF 30 31 32 33 34 35 36  .A.. ~...0123456\n";
    EXPECT_EQ(output_of([&] { hexDump("cdb", data, 3); }),
              "cdb:\n  0000  12 41 00" + std::string(39, ' ') + "  .A.\n");
    EXPECT_EQ(output_of([&] { hexDump(nullptr, data, 16); }), row);
    EXPECT_EQ(output_of([&] { hexDump("data:", data, 17); }),
              "data::\n" + row + "  0010  37" + std::string(45, ' ') + "  7\n");
    EXPECT_EQ(output_of([&] { hexDump("none", data, 0); }), "none:\n  \n");
}

TEST(Diagnostics, LogMirrorsTheReportAndOutlivesNothing) {
    const temporary_file file({'o', 'l', 'd'});
    const auto content = [&] {
        std::ostringstream text;
        text << std::ifstream(file.path).rdbuf();
        return text.str();
    };
    EXPECT_EQ(output_of([&] {
                  report("first %d\n", 1);
                  EXPECT_EQ(init_log("/nonexistent/log"), 0);
                  TRACE_LOG("%s", "unseen");
                  EXPECT_EQ(init_log(file.path.c_str()), 1);
                  TRACE_LOG("%s ", "half");
                  report("line %d\n", 2);
                  EXPECT_EQ(content(), "half line 2\n");  // written through before the file is closed
                  uninit_log();
                  TRACE_LOG("unseen");
                  uninit_log();
              }),
              "first 1\nline 2\n");
    EXPECT_EQ(content(), "half line 2\n");
}

TEST(Text, TrimsBlanksAndLineFeedsAlone) {
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"  ABC  \n", "ABC"}, {"A B", "A B"}, {"\n \n", ""}, {"", ""},
        {"\tA\r ", "\tA\r"},  {" x", "x"},    {"x ", "x"}};
    for (const auto& [from, to] : rows) {
        std::string text = from;
        remove_spaces(text.data());
        EXPECT_STREQ(text.c_str(), to.c_str());
    }
}

TEST(Text, CopiesAreBoundedAndClearTheField) {
    char field[4] = {'o', 'l', 'd', '!'};
    copy_field(field, "abcdef", 6);
    EXPECT_EQ(bytes_of(field), (bytes{'a', 'b', 'c', 0}));
    copy_field(field, "xyz", 3, 1);
    EXPECT_EQ(bytes_of(field), (bytes{'x', 0, 0, 0}));
    copy_field(field, "p\0q", 3);
    EXPECT_EQ(bytes_of(field), (bytes{'p', 0, 0, 0}));
    copy_trimmed<5>(field, "  abc");
    EXPECT_EQ(bytes_of(field), (bytes{'a', 'b', 'c', 0}));
    copy_field(field, "abc", 2);
    EXPECT_EQ(bytes_of(field), (bytes{'a', 'b', 0, 0}));
    copy_text(field, "");
    EXPECT_EQ(bytes_of(field), (bytes{0, 0, 0, 0}));
}
