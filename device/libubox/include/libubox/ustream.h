/*
 * Buffered streams. A stream reads what its consumer has room for and keeps what its descriptor does not take
 * yet.
 *
 * Reading: each piece of input is announced by notify_read with the number of all bytes buffered, and reading
 * goes on after it returns, until the descriptor has nothing more. A consumer takes bytes with
 * ustream_consume or ustream_read. When the read buffers are full and nothing is consumed, reading pauses
 * until something is.
 *
 * notify_read must not free its stream. notify_state is called from the loop itself and may.
 */
#ifndef LIBUBOX_USTREAM_H
#define LIBUBOX_USTREAM_H

#include <stdbool.h>

#include "uloop.h"

struct ustream;
struct ustream_buf;

enum read_blocked_reason {
    READ_BLOCKED_USER = (1 << 0),
    READ_BLOCKED_FULL = (1 << 1),
};

struct ustream_buf_list {
    struct ustream_buf *head;
    struct ustream_buf *tail;
    int data_bytes;   ///< bytes buffered; read it through ustream_pending_data
    int buffers;      ///< private: buffers allocated
    int max_buffers;  ///< 0 takes the default: 1 for reading, unlimited (-1) for writing
    int buffer_len;   ///< 0 takes the default: 4096 for reading, 256 for writing
};

struct ustream {
    struct ustream_buf_list r;
    struct ustream_buf_list w;
    struct uloop_timeout state_change;

    /// Private: how the stream reaches its descriptor.
    void (*watch)(struct ustream *s);
    int (*write)(struct ustream *s, const char *buf, int len, bool more);
    void (*free)(struct ustream *s);

    /// Input has come; `bytes` is all that is buffered now.
    void (*notify_read)(struct ustream *s, int bytes);
    /// `bytes` of buffered output have been passed on.
    void (*notify_write)(struct ustream *s, int bytes);
    /// `eof` or `write_error` has changed. May free the stream.
    void (*notify_state)(struct ustream *s);

    bool string_data;  ///< keep a zero behind the buffered input
    bool eof;
    bool write_error;  ///< output is lost and no more is taken
    int read_blocked;  ///< private: READ_BLOCKED_*
};

struct ustream_fd {
    struct ustream stream;
    struct uloop_fd fd;
};

/// Starts a stream on `fd`, which becomes non-blocking and remains the caller's to close after ustream_free.
/// The callbacks, string_data and the buffer sizes are set before, in an otherwise zeroed record.
void ustream_fd_init(struct ustream_fd *s, int fd);

/// Takes the stream off the loop and drops what is buffered. Does not close the descriptor.
void ustream_free(struct ustream *s);

/// The first piece of the buffered input and its length, or null when there is none. With a single read
/// buffer it is all of the input. Valid until the next call on this stream.
char *ustream_get_read_buf(struct ustream *s, int *buflen);

/// Takes `len` bytes (at most what is buffered) off the input.
void ustream_consume(struct ustream *s, int len);

/// Copies and consumes at most `buflen` bytes; returns how many.
int ustream_read(struct ustream *s, char *buf, int buflen);

/// Writes what the descriptor takes and buffers the rest. `more`: the rest of the message follows at once.
/// Returns how many bytes were taken, which is less than `len` only when max_buffers is reached, 0 after a
/// write error and -1 when this write found one.
int ustream_write(struct ustream *s, const char *buf, int len, bool more);

/// The number of bytes buffered: unread input, or output that the descriptor has not taken.
int ustream_pending_data(struct ustream *s, bool write);

/// Pauses and resumes reading.
void ustream_set_read_blocked(struct ustream *s, bool set);
bool ustream_read_blocked(struct ustream *s);

#endif
