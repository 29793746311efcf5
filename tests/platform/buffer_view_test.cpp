#include "nk/buffer_view.h"

#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

namespace {

using nk::buffer_view;

TEST(BufferView, ReadsInOrderAndStopsAtTheEnd) {
    const std::uint8_t raw[] = {0x11, 0x22, 0x33, 0x44, 0x55};
    buffer_view view(raw, sizeof(raw));
    EXPECT_EQ(view.read<std::uint8_t>(), 0x11);
    const auto word = view.read<std::uint16_t>();
    ASSERT_TRUE(word);
    std::uint16_t expected = 0;
    std::memcpy(&expected, raw + 1, sizeof(expected));
    EXPECT_EQ(*word, expected);
    EXPECT_EQ(view.remaining(), 2u);

    // Exactly one byte short: the read fails and consumes nothing.
    view.pos = 4;
    EXPECT_FALSE(view.read<std::uint16_t>());
    EXPECT_EQ(view.pos, 4u);
    EXPECT_EQ(view.read<std::uint8_t>(), 0x55);
    EXPECT_TRUE(view.empty());
    EXPECT_FALSE(view.read<std::uint8_t>());
}

TEST(BufferView, ReadnAtTheEnd) {
    const char raw[] = "abcdef";
    buffer_view view(raw, 6);
    const auto head = view.readn<char>(4);
    ASSERT_TRUE(head);
    EXPECT_EQ(std::string(*head, 4), "abcd");
    EXPECT_FALSE(view.readn<char>(3));  // two left
    EXPECT_EQ(view.pos, 4u);
    EXPECT_TRUE(view.readn<char>(0));  // not at the end yet
    const auto tail = view.readn<unsigned char>(2);
    ASSERT_TRUE(tail);
    EXPECT_EQ((*tail)[1], 'f');
    // At the end, even an empty read fails, so a zero-length field cannot loop forever.
    EXPECT_FALSE(view.readn<char>(0));
    EXPECT_FALSE(buffer_view().readn<char>(0));
}

// A length-prefixed record parser over every truncation of a valid message: each prefix
// must be rejected cleanly (and ASan would catch any read past the end).
std::optional<std::string> parse_record(buffer_view view) {
    const auto type = view.read<std::uint8_t>();
    const auto len = view.read<std::uint8_t>();
    if (!type || !len)
        return std::nullopt;
    const auto body = view.readn<char>(*len);
    const auto trailer = view.read<std::uint32_t>();
    if (!body || !trailer)
        return std::nullopt;
    return std::string(*body, *len);
}

TEST(BufferView, TruncationSweep) {
    const std::vector<std::uint8_t> message = {7,   5,    'h',  'e',  'l', 'l',
                                               'o', 0xde, 0xad, 0xbe, 0xef};
    ASSERT_EQ(parse_record(buffer_view(message.data(), message.size())), "hello");
    for (std::uint32_t len = 0; len < message.size(); ++len) {
        SCOPED_TRACE(len);
        // A heap copy of exactly `len` bytes, so an overread is an ASan error.
        const std::vector<std::uint8_t> cut(message.begin(), message.begin() + len);
        EXPECT_FALSE(parse_record(buffer_view(cut.data(), len)));
    }
}

}  // namespace
