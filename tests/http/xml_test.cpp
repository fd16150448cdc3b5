#include "http/xml.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "http/status.h"
#include "tests/support/temp_dir.h"

static std::string Repeat(const std::string& text, int count) {
    std::string all;
    for (int i = 0; i < count; i++) all += text;
    return all;
}

static std::string Numbered(const std::string& name, int count) {
    std::string all;
    for (int i = 0; i < count; i++) all += " " + name + std::to_string(i) + "='x'";
    return all;
}

TEST(Xml, RefusesHostileDocuments) {
    const std::string million(1000000, 'A');
    const std::string entity = "<!DOCTYPE f [<!ENTITY e '" + million + "'>]><filelist>";
    const std::string attribute =
        "<!DOCTYPE f [<!ATTLIST app x CDATA '" + million + "'>]><filelist>";
    const struct {
        const char* name;
        std::string text;
    } rows[] = {
        {"empty", ""},
        {"cut", "<filelist><app name='a'>"},
        {"DOCTYPE", "<!DOCTYPE filelist SYSTEM 'http://127.0.0.1:1/x'><filelist/>"},
        {"large entity", entity + Repeat("&e;", 100000) + "</filelist>"},
        {"default attribute", attribute + Repeat("<app/>", 100000) + "</filelist>"},
        {"attributes", "<filelist><app " + Numbered("a", 150000) + "/></filelist>"},
        {"namespaces",
         "<filelist " + Numbered("xmlns:a", 4000) + ">" + Repeat("<z:a/>", 200000) + "</filelist>"},
        {"entity without DOCTYPE", "<filelist>&e;</filelist>"},
        {"deep", Repeat("<filelist>", 200000)},
        {"broken UTF-8", "<filelist>\xff\xfe</filelist>"},
        {"UTF-16 mark", "\xff\xfe<"},
    };
    testing::internal::CaptureStderr();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(XmlDoc(xml_doc_read_mem(row.text.c_str())), nullptr);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

static int Collect(xmlNodePtr child, int position, void* argument) {
    *static_cast<std::string*>(argument) += std::to_string(position) + xml_text(child->name) + " ";
    return position == 3 ? -1 : 0;
}

TEST(Xml, WalksDocuments) {
    const XmlDoc document(xml_doc_read_mem(
        "<?xml version='1.0' encoding='gb2312'?><filelist><!-- <app name='b'/> --><app/>"
        "<app name='Beta'/><app name='beta'><version> 1.2 <b>x</b><![CDATA[<&]]></version>"
        "<version>2</version></app><app name='beta'/></filelist>"));
    xmlNodePtr root = xml_root_get(document.get());
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(xml_root_get(XmlDoc(xml_doc_read_mem("<files/>")).get()), nullptr);

    std::string seen;
    xml_child_foreach(root, "app", &seen, Collect);
    xml_child_foreach(root, nullptr, &seen, Collect);
    EXPECT_EQ(seen, "1app 2app 3app 1comment 2app 3app ");
    EXPECT_EQ(xml_child_find_by_name(root, "app", "BETA"), nullptr);
    xmlNodePtr beta = xml_child_find_by_name(root, "app", "beta");
    ASSERT_NE(beta, nullptr);
    char text[16];
    xml_child_content_get(beta, "version", text, sizeof(text));
    EXPECT_STREQ(text, " 1.2 x<&");
    xml_child_content_get(beta, "version", text, 5);
    EXPECT_STREQ(text, " 1.2");
    xml_child_content_get(beta, "missing", text, sizeof(text));
    EXPECT_STREQ(text, "");
    xml_node_name_get(beta, text, 3);
    EXPECT_STREQ(text, "be");
}

TEST(Xml, ReadsFilesWithoutBlankNodes) {
    const TempDir dir;
    dir.Write("ok", "<?xml version=\"1.0\"?>\n<filelist>\n  <app name=\"a\"/>\n</filelist>\n");
    dir.Write("empty", "");
    dir.Write("doctype", "<!DOCTYPE filelist [<!ENTITY e SYSTEM 'ok'>]><filelist>&e;</filelist>");
    dir.Write("zero byte", std::string("<filelist>\0</filelist>", 22));
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    const XmlDoc document(xml_doc_read_file((dir / "ok").c_str()));
    std::string seen;
    xml_child_foreach(xml_root_get(document.get()), nullptr, &seen, Collect);
    EXPECT_EQ(seen, "1app ");
    for (const char* name : {"empty", "doctype", "zero byte", "fifo", "missing", "."}) {
        EXPECT_EQ(XmlDoc(xml_doc_read_file((dir / name).c_str())), nullptr) << name;
    }
}

TEST(Xml, TrimsWhiteSpaceAtBothEnds) {
    char path[] = " \v/data/my app\t\r\n";
    str_trim(path);
    EXPECT_STREQ(path, "/data/my app");
    char blanks[] = " \f ";
    str_trim(blanks);
    EXPECT_STREQ(blanks, "");
}

TEST(Status, KnowsItsCodes) {
    for (UpdateStatus code = 0; code < 20; code++) {
        const bool warning = code == UPDATE_NO_MEMORY || code == UPDATE_NO_STORAGE;
        EXPECT_STREQ(update_status_prefix(code), warning ? "%warning: " : "%notice: ");
    }
    EXPECT_STREQ(update_status_str(16), "Notice failed the business module to upgrade.");
    EXPECT_STREQ(update_status_str(17), "Unknown error.");
    AppSet first{};
    AppSet second{};
    AppSet both{};
    for (const int slot : {0, 2, 65535}) app_set_insert(&first, slot);
    for (const int slot : {2, 5, 65535}) app_set_insert(&second, slot);
    app_set_and(&first, &second, &both);
    for (const int slot : {0, 2, 5, 65535}) {
        EXPECT_EQ(app_set_contains(both, slot), slot == 2 || slot == 65535);
    }
    second = AppSet{};
    app_set_and(&first, nullptr, &both);
    EXPECT_FALSE(app_set_is_empty(both));
    app_set_and(&first, &second, &both);
    EXPECT_TRUE(app_set_is_empty(both));
}
