// Byte queue for everything whose size is found only while it is built or
// received: appended at the tail, consumed from the head. Storage is a chain of
// blocks of one size, so that growing never moves a byte already held, and a
// block is freed the moment its last byte has been consumed.
//
// A CommBuf is normally embedded in its owner, set up with comm_buf_init and
// given back with comm_buf_reset on every path out: OwnedCommBuf does both.
//
// Threads: a buffer belongs to one thread at a time; nothing is locked.
#pragma once

#include <cstdint>

constexpr uint32_t COMM_BUF_BLOCK_SIZE = 512;

struct CommBufNode {
    CommBufNode* next;        // towards the tail
    int32_t reference_count;  // buffers that include this node
    uint8_t* data;            // block_size bytes
};

// head and tail are both null or both set. An exhausted node is dropped at once,
// so that an empty buffer has no nodes.
struct CommBuf {
    uint32_t block_size;  // of every node's data, in bytes
    uint32_t length;      // bytes appended and not yet consumed
    CommBufNode* tail;
    CommBufNode* head;
    uint32_t write_offset;  // bytes written into the tail
    uint32_t read_offset;   // bytes consumed from the head
};

// Sets a buffer up without looking at what it held; block size 0 means
// COMM_BUF_BLOCK_SIZE. -1 for null.
int comm_buf_init(CommBuf* buffer, uint32_t block_size);

// The same on the heap. Null when block_size is negative or memory is short. The
// caller releases it with comm_buf_free (null is ignored).
[[nodiscard]] CommBuf* comm_buf_new(int32_t block_size);
void comm_buf_free(CommBuf* buffer);

// Empties the buffer and frees its blocks; it is ready for use again. Null is
// ignored.
void comm_buf_reset(CommBuf* buffer);

// A buffer of the default block size.
struct OwnedCommBuf : CommBuf {
    OwnedCommBuf() { (void)comm_buf_init(this, 0); }  // fails for null only
    ~OwnedCommBuf() { comm_buf_reset(this); }
    OwnedCommBuf(const OwnedCommBuf&) = delete;
    OwnedCommBuf& operator=(const OwnedCommBuf&) = delete;
};

// 0 for null.
[[nodiscard]] uint32_t comm_buf_len(const CommBuf* buffer);

// Appends count bytes; zeroes when source is null. Returns count; fewer when
// memory ran short part-way (those stay appended), -1 when nothing was appended
// for want of memory, for a null buffer and for a negative count.
[[nodiscard]] int32_t comm_buf_append(CommBuf* buffer, const void* source, int32_t count);

// Consumes up to count bytes, copying them to destination unless it is null.
// Returns how many; -1 for a null buffer or a count of 0.
int32_t comm_buf_read(CommBuf* buffer, void* destination, uint32_t count);
int32_t comm_buf_skip(CommBuf* buffer, uint32_t count);

// Copies up to count bytes from the head without consuming them. Returns how
// many; -1 for a null argument or when there is nothing to copy.
[[nodiscard]] int32_t comm_buf_peek(CommBuf* buffer, void* destination, uint32_t count);

// Makes view include the first count unread bytes of source without copying
// them. view must have been set up; it is only ever read and then reset, before
// source is appended to again. -1 for a null argument, a count below 1, or when
// source holds fewer bytes.
[[nodiscard]] int comm_buf_share(const CommBuf* source, CommBuf* view, int32_t count);
