// The one rule for lengths that come from outside the provider's own arithmetic: a length field of
// a device record, a length the device library writes back, a length a caller hands in. Before
// anything is read or written with such a length it is held to the room of the buffer it indexes:
// below zero counts as zero, beyond the room as the room.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

template <typename Length>
constexpr size_t boundedLength(Length length, size_t room) {
    static_assert(std::is_integral_v<Length>, "a length is a whole number");
    if constexpr (std::is_signed_v<Length>) {
        if (length <= 0)
            return 0;
    }
    return static_cast<std::make_unsigned_t<Length>>(length) < room
               ? static_cast<size_t>(static_cast<std::make_unsigned_t<Length>>(length))
               : room;
}

// True when the length lies within 0 ... room, so that it can be used as it stands.
template <typename Length>
constexpr bool lengthFits(Length length, size_t room) {
    if constexpr (std::is_signed_v<Length>) {
        if (length < 0)
            return false;
    }
    return static_cast<std::make_unsigned_t<Length>>(length) <= room;
}

// The length of a fixed byte field of a record, held to the field.
template <size_t Room, typename Length>
constexpr size_t fieldLength(const unsigned char (&)[Room], Length length) {
    return boundedLength(length, Room);
}

// The text of a fixed character field that need not carry its terminating zero.
template <size_t Room>
std::string fieldText(const char (&field)[Room]) {
    return std::string(field, strnlen(field, Room));
}

// As an int for the device library (whose lengths are int); the room must fit in an int.
template <typename Length>
constexpr int boundedDeviceLength(Length length, size_t room) {
    return static_cast<int>(boundedLength(length, room));
}

// A caller's byte count as the device library's int length: a count beyond INT_MAX is cut, which
// only ever makes the device read less.
template <typename Length>
constexpr int deviceLength(Length count) {
    return boundedDeviceLength(count, INT_MAX);
}
