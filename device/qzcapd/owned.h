/// A C record of the loop or the bus, whose callbacks find the object that it is part of.
#ifndef ARVOK_QZCAPD_OWNED_H
#define ARVOK_QZCAPD_OWNED_H

namespace arvok::qzcapd {

template <typename Record, typename Owner>
struct Owned : Record {
    explicit Owned(Owner *object) : Record{}, owner(object) {}
    Owner *owner;

    /// The owner of the record that a callback was given.
    static Owner *of(Record *record) { return static_cast<Owned *>(record)->owner; }
};

}  // namespace arvok::qzcapd

#endif
