#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>

#include "buffer/comm_buf.h"
#include "buffer/memory.h"
#include "buffer/url_escape.h"

static int NodeCount(const CommBuf& buffer) {
    int count = 0;
    for (const CommBufNode* node = buffer.head; node != nullptr; node = node->next) count++;
    return count;
}

TEST(CommBuf, KeepsBlocksOnlyWhileTheyHoldBytes) {
    char byte = 0;
    CommBuf buffer;
    ASSERT_EQ(comm_buf_init(&buffer, 0), 0);
    EXPECT_EQ(comm_buf_append(&buffer, "a", -1), -1);
    EXPECT_EQ(comm_buf_append(&buffer, "a", 0), 0);
    EXPECT_EQ(NodeCount(buffer), 0);
    EXPECT_EQ(comm_buf_append(&buffer, nullptr, 513), 513);
    EXPECT_EQ(NodeCount(buffer), 2);
    EXPECT_EQ(comm_buf_skip(&buffer, 511), 511);
    EXPECT_EQ(NodeCount(buffer), 2);
    EXPECT_EQ(comm_buf_skip(&buffer, 1), 1);
    EXPECT_EQ(NodeCount(buffer), 1);
    EXPECT_EQ(comm_buf_read(&buffer, &byte, 0), -1);
    EXPECT_EQ(comm_buf_read(&buffer, &byte, 10), 1);
    EXPECT_EQ(NodeCount(buffer), 0);
    EXPECT_EQ(comm_buf_peek(&buffer, &byte, 1), -1);
    EXPECT_EQ(comm_buf_append(&buffer, "xy", 2), 2);  // into a fresh block
    EXPECT_EQ(buffer.write_offset, 2u);
    comm_buf_reset(&buffer);
    comm_buf_init(&buffer, 0xFFFFFFFF);  // no block of that size can be had
    EXPECT_EQ(comm_buf_append(&buffer, "a", 1), -1);
    EXPECT_EQ(NodeCount(buffer), 0);
}

TEST(CommBuf, BehavesAsAQueueOfBytes) {
    std::minstd_rand random(7);
    std::string source(1200, '\0');
    std::generate(source.begin(), source.end(), [&] { return static_cast<char>(random()); });
    for (const int block : {1, 3, 64, 512}) {
        SCOPED_TRACE(block);
        CommBuf* buffer = comm_buf_new(block);
        std::string model;
        for (int step = 0; step < 3000; step++) {
            const auto count = static_cast<uint32_t>(1 + random() % 1200);
            const auto size = static_cast<int32_t>(std::min<size_t>(count, model.size()));
            if (random() % 2 == 0) {
                ASSERT_EQ(comm_buf_append(buffer, source.data(), static_cast<int32_t>(count)),
                          static_cast<int32_t>(count));
                model += source.substr(0, count);
            } else if (size > 0) {
                std::string seen(count, '?');
                ASSERT_EQ(comm_buf_peek(buffer, seen.data(), count), size);
                ASSERT_TRUE(seen.starts_with(model.substr(0, count)));
                seen.assign(count, '?');
                ASSERT_EQ(comm_buf_read(buffer, seen.data(), count), size);
                ASSERT_TRUE(seen.starts_with(model.substr(0, count)));
                model.erase(0, count);
            }
            ASSERT_EQ(comm_buf_len(buffer), model.size());
        }
        comm_buf_free(buffer);
    }
}

TEST(UrlEscape, EscapesTheClassesAskedFor) {
    const std::string passing =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789!$&'()*+,-./;=?_~";
    using Text = MemPtr<char>;
    for (int byte = 1; byte < 256; byte++) {
        const std::string text = "a" + std::string(1, static_cast<char>(byte));
        char escaped[5];
        snprintf(escaped, sizeof(escaped), "a%%%02X", static_cast<unsigned>(byte));
        const bool unsafe = passing.find(text[1]) == std::string::npos;
        const bool delimits = strchr("#$&+,/:;=?@[]", byte) != nullptr;
        EXPECT_EQ(Text(url_escape_value(text.c_str())).get(), unsafe ? escaped : text);
        EXPECT_EQ(Text(url_escape(text.c_str(), URL_CLASS_RESERVED)).get(),
                  delimits ? escaped : text);
    }
}
