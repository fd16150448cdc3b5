#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>

#include "buffer/comm_buf.h"
#include "buffer/memory.h"
#include "buffer/url_escape.h"

static size_t Blocks(const CommBuf& buffer) {
    size_t count = 0;
    for (const CommBufNode* node = buffer.head; node != nullptr; node = node->next) count++;
    return count;
}

TEST(CommBuf, RefusesWhatCannotBeDone) {
    char byte = 0;
    OwnedCommBuf buffer;
    EXPECT_EQ(comm_buf_append(&buffer, "a", -1), -1);
    EXPECT_EQ(comm_buf_append(&buffer, "a", 0), 0);
    EXPECT_EQ(comm_buf_read(&buffer, &byte, 0), -1);
    EXPECT_EQ(comm_buf_peek(&buffer, &byte, 1), -1);
    comm_buf_init(&buffer, 0xFFFFFFFF);  // no block of that size can be had
    EXPECT_EQ(comm_buf_append(&buffer, "a", 1), -1);
    EXPECT_EQ(Blocks(buffer), 0u);
}

TEST(CommBuf, BehavesAsAQueueOfBytesInAsManyBlocksAsTheyNeed) {
    std::minstd_rand random(7);
    std::string source(1200, '\0');
    std::generate(source.begin(), source.end(), [&] { return static_cast<char>(random()); });
    for (const size_t block : {1UL, 3UL, 64UL, 512UL}) {
        SCOPED_TRACE(block);
        CommBuf* buffer = comm_buf_new(static_cast<int32_t>(block));
        std::string model;
        for (int step = 0; step < 3000; ++step) {
            const auto count = static_cast<uint32_t>(1 + random() % 1200);
            const auto size = static_cast<int32_t>(std::min<size_t>(count, model.size()));
            const bool writes = random() % 2 == 0, bare = random() % 4 == 0;
            if (writes) {  // bare: zeroes
                ASSERT_EQ(comm_buf_append(buffer, bare ? nullptr : source.data(),
                                          static_cast<int32_t>(count)),
                          static_cast<int32_t>(count));
                model += bare ? std::string(count, '\0') : source.substr(0, count);
            } else if (bare) {
                ASSERT_EQ(comm_buf_skip(buffer, count), size);
            } else if (size > 0) {
                std::string peeked(count, '?'), seen(count, '?');
                ASSERT_EQ(comm_buf_peek(buffer, peeked.data(), count), size);
                ASSERT_EQ(comm_buf_read(buffer, seen.data(), count), size);
                ASSERT_TRUE(seen.starts_with(model.substr(0, count)));
                ASSERT_EQ(seen, peeked);
            }
            if (!writes) model.erase(0, count);
            ASSERT_EQ(comm_buf_len(buffer), model.size());
            ASSERT_LE(Blocks(*buffer), model.empty() ? 0 : (model.size() - 1) / block + 2);
        }
        comm_buf_free(buffer);
    }
}

TEST(UrlEscape, EscapesTheClassesAskedFor) {
    const std::string passing =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789!$&'()*+,-./;=?_~";
    using Text = MemPtr<char>;
    for (int byte = 1; byte < 256; ++byte) {
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
