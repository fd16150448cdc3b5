#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>

#include "buffer/comm_buf.h"
#include "buffer/memory.h"
#include "buffer/url_escape.h"

static std::string Pattern(size_t size) {
    std::string text(size, '\0');
    for (size_t i = 0; i < size; i++) text[i] = static_cast<char>('a' + i % 23);
    return text;
}

static int NodeCount(const CommBuf& buffer) {
    int count = 0;
    for (const CommBufNode* node = buffer.head; node != nullptr; node = node->next) count++;
    return count;
}

static int32_t Append(CommBuf* buffer, const std::string& text) {
    return comm_buf_append(buffer, text.data(), static_cast<int32_t>(text.size()));
}

static std::string Read(CommBuf* buffer, uint32_t count) {
    std::string text(count, '?');
    text.resize(static_cast<size_t>(comm_buf_read(buffer, text.data(), count)));
    return text;
}

TEST(CommBuf, KeepsBlocksOnlyWhileTheyHoldBytes) {
    CommBuf buffer;
    ASSERT_EQ(comm_buf_init(&buffer, 0), 0);
    EXPECT_EQ(Append(&buffer, Pattern(513)), 513);
    EXPECT_EQ(NodeCount(buffer), 2);
    EXPECT_EQ(buffer.write_offset, 1u);
    EXPECT_EQ(comm_buf_skip(&buffer, 511), 511);
    EXPECT_EQ(NodeCount(buffer), 2);
    EXPECT_EQ(comm_buf_skip(&buffer, 1), 1);
    EXPECT_EQ(NodeCount(buffer), 1);
    EXPECT_EQ(Read(&buffer, 10), Pattern(513).substr(512));
    EXPECT_EQ(NodeCount(buffer), 0);
    EXPECT_EQ(Append(&buffer, "xy"), 2);  // into a fresh block
    EXPECT_EQ(buffer.write_offset, 2u);
    comm_buf_reset(&buffer);
    EXPECT_EQ(NodeCount(buffer), 0);
}

TEST(CommBuf, AnswersBadArgumentsAndShortMemory) {
    char byte = 0;
    EXPECT_EQ(comm_buf_append(nullptr, "a", 1), -1);
    EXPECT_EQ(comm_buf_read(nullptr, &byte, 1), -1);
    EXPECT_EQ(comm_buf_new(-1), nullptr);
    CommBuf* buffer = comm_buf_new(4);
    EXPECT_EQ(comm_buf_append(buffer, "a", -1), -1);
    EXPECT_EQ(comm_buf_append(buffer, "a", 0), 0);
    EXPECT_EQ(NodeCount(*buffer), 0);
    EXPECT_EQ(comm_buf_read(buffer, &byte, 0), -1);
    EXPECT_EQ(comm_buf_peek(buffer, &byte, 1), -1);
    EXPECT_EQ(comm_buf_append(buffer, nullptr, 9), 9);
    EXPECT_EQ(Read(buffer, 20), std::string(9, '\0'));
    comm_buf_free(buffer);

    CommBuf huge;
    comm_buf_init(&huge, 0xFFFFFFFF);  // no block of that size can be had
    EXPECT_EQ(comm_buf_append(&huge, "a", 1), -1);
    EXPECT_EQ(NodeCount(huge), 0);
}

TEST(CommBuf, BehavesAsAQueueOfBytes) {
    std::minstd_rand random(7);
    const std::string source = Pattern(1200);
    for (const uint32_t block : {1u, 3u, 64u, 512u}) {
        SCOPED_TRACE(block);
        CommBuf buffer;
        comm_buf_init(&buffer, block);
        std::string model;
        for (int step = 0; step < 3000; step++) {
            const auto count = static_cast<uint32_t>(1 + random() % 1200);
            if (random() % 2 == 0) {
                ASSERT_EQ(Append(&buffer, source.substr(0, count)), static_cast<int32_t>(count));
                model += source.substr(0, count);
            } else if (!model.empty()) {
                std::string seen(std::min<size_t>(count, model.size()), '?');
                ASSERT_EQ(comm_buf_peek(&buffer, seen.data(), count),
                          static_cast<int>(seen.size()));
                ASSERT_EQ(seen, model.substr(0, count));
                CommBuf view{};
                ASSERT_EQ(comm_buf_share(&buffer, &view, static_cast<int>(seen.size())), 0);
                ASSERT_EQ(Read(&view, 5000), seen);
                ASSERT_EQ(Read(&buffer, count), model.substr(0, count));
                model.erase(0, count);
            }
            ASSERT_EQ(comm_buf_len(&buffer), model.size());
        }
        comm_buf_reset(&buffer);
    }
}

TEST(UrlEscape, EscapesTheClassesAskedFor) {
    const std::string passing =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789!$&'()*+,-./;=?_~";
    const std::string reserved = "#$&+,/:;=?@[]";
    using Text = std::unique_ptr<char, MemFree>;
    for (int byte = 1; byte < 256; byte++) {
        const std::string text(1, static_cast<char>(byte));
        char escaped[4];
        snprintf(escaped, sizeof(escaped), "%%%02X", static_cast<unsigned>(byte));
        const bool unsafe = passing.find(text) == std::string::npos;
        const bool delimits = reserved.find(text) != std::string::npos;
        EXPECT_EQ(Text(url_escape_value(text.c_str())).get(), unsafe ? escaped : text);
        EXPECT_EQ(Text(url_escape(text.c_str(), URL_CLASS_RESERVED)).get(),
                  delimits ? escaped : text);
    }
    EXPECT_STREQ(Text(url_escape_value("a b/c:d")).get(), "a%20b/c%3Ad");
    EXPECT_EQ(url_escape_value(nullptr), nullptr);
}
