#include "update/filename_list.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "frame/log.h"
#include "http/xml.h"
#include "tests/fakes/fakes.h"

namespace {

std::string Files(int count) {
    std::string files;
    for (int i = 0; i < count; i++) files += "<file name='f" + std::to_string(i) + "'/>";
    return files;
}

// The root stands for the app element.
struct Counted {
    int result = 0;
    int32_t count = -1;
    std::vector<std::string> names;
    std::string log;
};

Counted Count(const std::string& children) {
    fakes::Reset();
    DebugMask = DEBUG_ALL;
    const XmlDoc document(xml_doc_read_mem(("<filelist>" + children + "</filelist>").c_str()));
    Counted counted;
    FilenameArray array = nullptr;
    counted.result = filename_count(xml_root_get(document.get()), &counted.count, &array);
    for (int32_t i = 0; array != nullptr && i < counted.count; i++)
        counted.names.emplace_back(array[i]);
    filename_free(array, counted.count);
    counted.log = fakes::Syslog();
    return counted;
}

}  // namespace

TEST(FilenameList, CountTakesAsManyNamesAsFilecntSays) {
    const struct {
        const char* name;
        std::string children;
        int result;
        size_t names;
        const char* logged;
    } rows[] = {
        {"one", "<filecnt>1</filecnt><file name='a'/>", 0, 1, "[file] attr [a]"},
        {"none", "<filecnt>0</filecnt>", 0, 0, "filename_count-->count 0"},
        {"white space and letters", "<filecnt> 3abc</filecnt>" + Files(3), 0, 3, "count 3"},
        {"no number", "<filecnt>x3</filecnt>" + Files(3), -1, 0, "filename_count-->get cnt fail"},
        {"no filecnt", Files(3), -1, 0, "filename_count-->get cnt fail"},
        {"limit", "<filecnt>100</filecnt>" + Files(100), 0, 100, "count 100"},
        {"over limit", "<filecnt>101</filecnt>" + Files(101), -1, 0, " wrong filecnt 100"},
        {"negative", "<filecnt>-1</filecnt>" + Files(1), -1, 0, " wrong filecnt 100"},
        // 2^32 + 1 in 15 digits: no way around the limit by wrapping.
        {"huge", "<filecnt>000004294967297</filecnt>" + Files(1), -1, 0, " wrong filecnt 100"},
        {"too many files", "<filecnt>2</filecnt>" + Files(3), 0, 2,
         "filename_replenish-->out 2 over in 2"},
        {"too few files", "<filecnt>2</filecnt>" + Files(1), -1, 0,
         "filename_count-->fielcout 1 is not equal 2"},
        {"nameless file", "<filecnt>3</filecnt><file name='a'/><file/><file name='c'/>", -1, 0,
         "filename_replenish-->[file] have no attr"},
        {"nameless file stops", "<filecnt>3</filecnt><file name='a'/><file/><file name='c'/>", -1,
         0, "filename_count-->fielcout 1 is not equal 3"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const Counted counted = Count(row.children);
        EXPECT_EQ(counted.result, row.result);
        EXPECT_EQ(counted.count, static_cast<int32_t>(row.names));
        EXPECT_EQ(counted.names.size(), row.names);
        EXPECT_NE(counted.log.find(row.logged), std::string::npos) << counted.log;
    }
}

TEST(FilenameList, LongNameIsCutToItsBuffer) {
    const Counted counted =
        Count("<filecnt>1</filecnt><file name='" + std::string(300, 'n') + "'/>");
    ASSERT_EQ(counted.names.size(), 1U);
    EXPECT_EQ(counted.names[0], std::string(255, 'n'));
}

TEST(FilenameList, FindsWholePathsAmongTheFirstEntries) {
    char first[FILENAME_SIZE] = "/data/a.bin.1";
    char second[FILENAME_SIZE] = "/data/b.bin";
    char* array[] = {first, nullptr, second};
    EXPECT_EQ(filename_find(array, "/data/b.bin", 3), 0);
    EXPECT_EQ(filename_find(array, "/data/b.bin", 2), -1);
    EXPECT_EQ(filename_find(array, "/data/a.bin", 3), -1);
    EXPECT_EQ(filename_find(nullptr, "/data/a.bin", 3), -1);
    EXPECT_EQ(filename_find(array, nullptr, 3), -1);
}

TEST(FilenameList, UnlinkGoesOnPastMissingFiles) {
    fakes::Reset();
    DebugMask = DEBUG_ALL;
    char missing[FILENAME_SIZE] = "/nonexistent/file";
    char there[FILENAME_SIZE] = "/tmp/filename_list.XXXXXX";
    ASSERT_EQ(close(mkstemp(there)), 0);
    char* array[] = {missing, nullptr, there};
    filename_unlink(array, 3);
    EXPECT_NE(access(there, F_OK), 0);
    EXPECT_EQ(fakes::Syslog(),
              "[/nonexistent/file]<-->unlink\n[" + std::string(there) + "]<-->unlink\n");
}

TEST(FilenameList, MallocRefusesCountsWithoutEntries) {
    fakes::Reset();
    DebugMask = DEBUG_ALL;
    EXPECT_EQ(filename_malloc(0), nullptr);
    EXPECT_EQ(filename_malloc(INT32_MAX), nullptr);
    EXPECT_EQ(fakes::Syslog(),
              "filecnt [0] is invalid in filename malloc\nmalloc for [2147483647] fail\n");
}
