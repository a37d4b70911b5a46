/*
 * Doubly linked lists whose links live in the elements. A list is a `struct list_head` that points to itself
 * when it is empty. Nothing here allocates; an element may be on as many lists as it has links.
 */
#ifndef LIBUBOX_LIST_H
#define LIBUBOX_LIST_H

#include <stdbool.h>
#include <stddef.h>

#include "utils.h"

struct list_head {
    struct list_head *next;
    struct list_head *prev;
};

/* clang-format off */
#define LIST_HEAD_INIT(name) { &(name), &(name) }
/* clang-format on */
#define LIST_HEAD(name) struct list_head name = LIST_HEAD_INIT(name)

static inline void INIT_LIST_HEAD(struct list_head *list) {
    list->next = list;
    list->prev = list;
}

static inline bool list_empty(const struct list_head *head) {
    return head->next == head;
}

static inline bool list_is_first(const struct list_head *entry, const struct list_head *head) {
    return entry->prev == head;
}

static inline bool list_is_last(const struct list_head *entry, const struct list_head *head) {
    return entry->next == head;
}

/// Puts `entry` at the front.
static inline void list_add(struct list_head *entry, struct list_head *head) {
    entry->prev = head;
    entry->next = head->next;
    head->next->prev = entry;
    head->next = entry;
}

/// Puts `entry` at the back; with a member of a list in place of `head`, right before that member.
static inline void list_add_tail(struct list_head *entry, struct list_head *head) {
    list_add(entry, head->prev);
}

/// Takes `entry` off its list; its links are void afterwards.
static inline void list_del(struct list_head *entry) {
    entry->next->prev = entry->prev;
    entry->prev->next = entry->next;
    entry->next = NULL;
    entry->prev = NULL;
}

/// Takes `entry` off its list and leaves it an empty list of its own, so that it may be taken off again.
static inline void list_del_init(struct list_head *entry) {
    list_del(entry);
    INIT_LIST_HEAD(entry);
}

static inline void list_move(struct list_head *entry, struct list_head *head) {
    list_del(entry);
    list_add(entry, head);
}

static inline void list_move_tail(struct list_head *entry, struct list_head *head) {
    list_del(entry);
    list_add_tail(entry, head);
}

#define list_entry(link, type, field) container_of(link, type, field)
#define list_first_entry(head, type, field) list_entry((head)->next, type, field)
#define list_last_entry(head, type, field) list_entry((head)->prev, type, field)

#define list_for_each(p, head) for (p = (head)->next; p != (head); p = p->next)

#define list_for_each_safe(p, n, head) for (p = (head)->next, n = p->next; p != (head); p = n, n = p->next)

#define list_for_each_entry(p, head, field)                                      \
    for (p = list_first_entry(head, __typeof__(*p), field); &p->field != (head); \
         p = list_entry(p->field.next, __typeof__(*p), field))

#define list_for_each_entry_reverse(p, head, field)                             \
    for (p = list_last_entry(head, __typeof__(*p), field); &p->field != (head); \
         p = list_entry(p->field.prev, __typeof__(*p), field))

/// `p` may be taken off the list and freed in the body; its successor `n` may not.
#define list_for_each_entry_safe(p, n, head, field)           \
    for (p = list_first_entry(head, __typeof__(*p), field),   \
        n = list_entry(p->field.next, __typeof__(*p), field); \
         &p->field != (head); p = n, n = list_entry(n->field.next, __typeof__(*n), field))

#endif
