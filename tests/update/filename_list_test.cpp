#include "update/filename_list.h"

#include <gtest/gtest.h>

#include "frame/log.h"
#include "http/xml.h"
#include "tests/fakes/fakes.h"

static std::string Files(int count) {
    std::string files;
    for (int i = 0; i < count; i++) files += "<file name='f" + std::to_string(i) + "'/>";
    return files;
}

TEST(FilenameList, CountTakesAsManyNamesAsFilecntSays) {
    fakes::Reset();
    DebugMask = DEBUG_ALL;
    const struct {
        const char* filecnt;
        std::string files;
        int result;
        int32_t count;
        const char* logged;
    } rows[] = {
        {" 3abc", Files(3), 0, 3, "count 3"},
        {"x3", Files(3), -1, 0, "filename_count-->get cnt fail"},
        {"101", Files(101), -1, 0, " wrong filecnt 100"},
        {"-1", Files(1), -1, 0, " wrong filecnt 100"},
        {"000004294967297", Files(1), -1, 0, " wrong filecnt 100"},  // 2^32 + 1
        {"2", Files(3), 0, 2, "filename_replenish-->out 2 over in 2"},
        {"3", "<file name='a'/><file/><file name='c'/>", -1, 0,
         "[file] have no attr\nfilename_count-->fielcout 1 is not equal 3"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.filecnt);
        // The root stands for the app element.
        const XmlDoc document(xml_doc_read_mem(("<filelist><filecnt>" + std::string(row.filecnt) +
                                                "</filecnt>" + row.files + "</filelist>")
                                                   .c_str()));
        OwnedFilenames names;
        EXPECT_EQ(filename_count(xml_root_get(document.get()), &names.count, &names.array),
                  row.result);
        EXPECT_EQ(names.count, row.count);
        EXPECT_EQ(names.array != nullptr, row.count > 0);
        if (names.array != nullptr) {
            EXPECT_EQ(names.array[row.count - 1], "f" + std::to_string(row.count - 1));
        }
        const std::string log = fakes::Syslog();
        EXPECT_NE(log.find(row.logged), std::string::npos) << log;
    }
}
