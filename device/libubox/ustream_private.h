/*
 * What a stream offers to the code that moves its bytes.
 */
#ifndef USTREAM_PRIVATE_H
#define USTREAM_PRIVATE_H

#include <libubox/ustream.h>

/// Prepares the private parts of a stream whose callbacks and sizes are set.
void ustream_init(struct ustream *s);

/// Where input may be put and how much; null, and reading is blocked, when the consumer must make room first.
char *ustream_reserve(struct ustream *s, int *len);

/// `len` bytes have been put into the reserved room: tells the consumer.
void ustream_fill(struct ustream *s, int len);

/// Passes buffered output on as far as it is taken. The consumer is told last of all, nothing is touched
/// afterwards.
void ustream_write_pending(struct ustream *s);

/// No more output is taken, what is buffered is lost: tells the consumer through its state.
void ustream_fail_writing(struct ustream *s);

/// Arranges for notify_state.
void ustream_state_change(struct ustream *s);

#endif
