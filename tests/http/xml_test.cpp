#include "http/xml.h"

#include <gtest/gtest.h>

#include <string>

#include "http/status.h"

static std::string Repeat(const std::string& text, int count) {
    std::string all;
    for (int i = 0; i < count; ++i) all += text;
    return all;
}

static std::string Numbered(const std::string& name, int count) {
    std::string all;
    for (int i = 0; i < count; ++i) all += " " + name + std::to_string(i) + "='x'";
    return all;
}

// Elements within each other that declare a namespace each.
static std::string Nested(int count) {
    std::string all;
    for (int i = 0; i < count; ++i) all += "<filelist xmlns:a" + std::to_string(i) + "='x'>";
    return all + Repeat("</filelist>", count);
}

// Each would cost minutes or gigabytes, or words on standard error.
TEST(Xml, RefusesHostileDocuments) {
    const std::string million(1000000, 'A');
    const std::string documents[] = {
        "<!DOCTYPE f [<!ENTITY e '" + million + "'>]><filelist>" + Repeat("&e;", 100000) +
            "</filelist>",
        "<!DOCTYPE f [<!ATTLIST app x CDATA '" + million + "'>]><filelist>" +
            Repeat("<app/>", 100000) + "</filelist>",
        "<filelist><app " + Numbered("a", 150000) + "/></filelist>",
        "<filelist " + Numbered("xmlns:a", 4000) + ">" + Repeat("<z:a/>", 200000) + "</filelist>",
        "<filelist>&e;</filelist>",
        "<filelist>\xff\xfe</filelist>",
        "\xff\xfe<",
        "<?xml version='1.0' encoding='IBM037'?><filelist/>",
        "<?xml version='1.0' encoding=\"UTF-7\"?><filelist/>",
        "\x4c\x6f\xa7\x94<filelist/>",  // as IBM037 begins
        Nested(257),
    };
    testing::internal::CaptureStderr();
    for (const std::string& text : documents) {
        EXPECT_EQ(XmlDoc(xml_doc_read_mem(text.c_str())), nullptr) << text.substr(0, 40);
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
    EXPECT_EQ(xml_root_get(XmlDoc(xml_doc_read_mem("<files/>")).get()), nullptr);
    const std::string siblings =
        "\xef\xbb\xbf<filelist>" + Repeat("<app xmlns='x'/>", 1000) + "</filelist>";
    EXPECT_NE(XmlDoc(xml_doc_read_mem(siblings.c_str())), nullptr);
    EXPECT_NE(XmlDoc(xml_doc_read_mem(Nested(255).c_str())), nullptr);
    std::string seen;
    xml_child_foreach(root, "app", &seen, Collect);
    xml_child_foreach(root, nullptr, &seen, Collect);
    EXPECT_EQ(seen, "1app 2app 3app 1comment 2app 3app ");
    EXPECT_EQ(xml_child_find_by_name(root, "app", "BETA"), nullptr);
    xmlNodePtr beta = xml_child_find_by_name(root, "app", "beta");
    char text[16];
    xml_child_content_get(beta, "version", text, sizeof(text));
    EXPECT_STREQ(text, " 1.2 x<&");
    xml_child_content_get(beta, "version", text, 5);
    EXPECT_STREQ(text, " 1.2");
}

TEST(Status, WarnsOnlyWhereTheDeviceIsShortOfSomething) {
    for (uint32_t code = 0; code < 20; ++code) {
        const bool warning = code == UPDATE_NO_MEMORY || code == UPDATE_NO_STORAGE;
        EXPECT_STREQ(update_status_prefix(code), warning ? "%warning: " : "%notice: ") << code;
        EXPECT_EQ(std::string(update_status_str(code)) == "Unknown error.", code > 16) << code;
    }
}
