// A chain of blocks of one size. A node counts the buffers that include it: a view shares
// its source's nodes and moves its own offsets only, so that peeking copies nothing. Bytes
// beyond the write offset have never been written and are zero still.
#include "buffer/comm_buf.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "buffer/memory.h"

static uint32_t writable_size(const CommBuf* buffer) {
    return buffer->tail == nullptr ? 0 : buffer->block_size - buffer->write_offset;
}

// Bytes to read in node, which starts at offset for the buffer's reader.
static uint32_t readable_size(const CommBuf* buffer, const CommBufNode* node, uint32_t offset) {
    return (node == buffer->tail ? buffer->write_offset : buffer->block_size) - offset;
}

static void node_release(CommBufNode* node) {
    if (node->reference_count > 0) node->reference_count--;
    if (node->reference_count != 0) return;
    mem_free(node->data);
    mem_free(node);
}

// Makes room at the tail: a fresh node when there is none left. -1 when memory
// is short; nothing has changed then.
static int grow(CommBuf* buffer) {
    if (writable_size(buffer) > 0) return 0;
    auto* node = static_cast<CommBufNode*>(mem_zalloc(sizeof(CommBufNode)));
    if (node == nullptr) return -1;
    node->data = static_cast<uint8_t*>(mem_zalloc(static_cast<int32_t>(buffer->block_size)));
    if (node->data == nullptr) {
        mem_free(node);
        return -1;
    }
    node->reference_count = 1;
    if (buffer->tail != nullptr) buffer->tail->next = node;
    buffer->tail = node;
    buffer->write_offset = 0;
    if (buffer->head == nullptr) {
        buffer->head = node;
        buffer->read_offset = 0;
    }
    return 0;
}

// Consumes count readable bytes of the head and drops it when it is exhausted.
static void advance(CommBuf* buffer, uint32_t count) {
    buffer->read_offset += count;
    buffer->length -= count;
    CommBufNode* head = buffer->head;
    if (readable_size(buffer, head, buffer->read_offset) > 0) return;
    buffer->read_offset = 0;
    if (head == buffer->tail) {
        buffer->head = nullptr;
        buffer->tail = nullptr;
        buffer->write_offset = 0;
    } else {
        buffer->head = head->next;
    }
    node_release(head);
}

int comm_buf_init(CommBuf* buffer, uint32_t block_size) {
    if (buffer == nullptr) return -1;
    *buffer = CommBuf{};
    buffer->block_size = block_size == 0 ? COMM_BUF_BLOCK_SIZE : block_size;
    return 0;
}

CommBuf* comm_buf_new(int32_t block_size) {
    if (block_size < 0) return nullptr;
    auto* buffer = static_cast<CommBuf*>(mem_zalloc(sizeof(CommBuf)));
    if (buffer != nullptr) comm_buf_init(buffer, static_cast<uint32_t>(block_size));
    return buffer;
}

void comm_buf_free(CommBuf* buffer) {
    comm_buf_reset(buffer);
    mem_free(buffer);
}

void comm_buf_reset(CommBuf* buffer) {
    if (buffer == nullptr) return;
    while (buffer->head != nullptr) {
        advance(buffer, readable_size(buffer, buffer->head, buffer->read_offset));
    }
    comm_buf_init(buffer, buffer->block_size);
}

uint32_t comm_buf_len(const CommBuf* buffer) { return buffer == nullptr ? 0 : buffer->length; }

int32_t comm_buf_append(CommBuf* buffer, const void* source, int32_t count) {
    if (buffer == nullptr || count < 0) return -1;
    if (static_cast<uint32_t>(count) > UINT32_MAX - buffer->length) return -1;
    const auto* bytes = static_cast<const uint8_t*>(source);
    auto remaining = static_cast<uint32_t>(count);
    while (remaining > 0) {
        if (grow(buffer) != 0) {
            const int32_t appended = count - static_cast<int32_t>(remaining);
            return appended >= 1 ? appended : -1;
        }
        const uint32_t chunk = std::min(remaining, writable_size(buffer));
        // Without a source the block's own zeroes are the bytes: what lies
        // beyond the write offset has never been written.
        if (bytes != nullptr) {
            memcpy(buffer->tail->data + buffer->write_offset, bytes, chunk);
            bytes += chunk;
        }
        buffer->write_offset += chunk;
        buffer->length += chunk;
        remaining -= chunk;
    }
    return count;
}

int32_t comm_buf_read(CommBuf* buffer, void* destination, uint32_t count) {
    if (buffer == nullptr || count == 0) return -1;
    const uint32_t wanted = std::min(count, static_cast<uint32_t>(INT32_MAX));
    auto* bytes = static_cast<uint8_t*>(destination);
    uint32_t remaining = wanted;
    while (buffer->head != nullptr && remaining > 0) {
        const uint32_t readable = readable_size(buffer, buffer->head, buffer->read_offset);
        const uint32_t chunk = std::min(remaining, readable);
        if (bytes != nullptr) {
            memcpy(bytes, buffer->head->data + buffer->read_offset, chunk);
            bytes += chunk;
        }
        remaining -= chunk;
        advance(buffer, chunk);
    }
    return static_cast<int32_t>(wanted - remaining);
}

int32_t comm_buf_skip(CommBuf* buffer, uint32_t count) {
    return comm_buf_read(buffer, nullptr, count);
}

int32_t comm_buf_peek(CommBuf* buffer, void* destination, uint32_t count) {
    if (buffer == nullptr || destination == nullptr) return -1;
    const uint32_t kept = std::min({count, buffer->length, static_cast<uint32_t>(INT32_MAX)});
    CommBuf view;
    comm_buf_init(&view, 0);
    if (comm_buf_share(buffer, &view, static_cast<int32_t>(kept)) != 0) return -1;
    const int32_t copied = comm_buf_read(&view, destination, kept);
    comm_buf_reset(&view);
    return copied;
}

int comm_buf_share(const CommBuf* source, CommBuf* view, int32_t count) {
    if (source == nullptr || view == nullptr || count < 1) return -1;
    auto remaining = static_cast<uint32_t>(count);
    if (source->length < remaining) return -1;
    comm_buf_reset(view);
    *view = *source;
    view->length = remaining;
    uint32_t offset = source->read_offset;
    for (CommBufNode* node = source->head; node != nullptr; node = node->next) {
        const uint32_t readable = readable_size(source, node, offset);
        ++node->reference_count;
        if (remaining <= readable) {
            view->tail = node;
            view->write_offset = offset + remaining;
            break;
        }
        remaining -= readable;
        offset = 0;
    }
    return 0;
}
