#include "tests/support/rtmp_chunks.hpp"

#include <algorithm>

namespace orbweave::test {

namespace {

constexpr std::uint32_t extended_timestamp = 0xffffff;
constexpr std::uint32_t max_message_bytes = 16 * 1024 * 1024;

std::uint32_t big_endian(std::string_view bytes, std::size_t at, std::size_t count)
{
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < count; ++i)
        value = value << 8 | static_cast<std::uint8_t>(bytes[at + i]);
    return value;
}

std::uint32_t little_endian32(std::string_view bytes, std::size_t at)
{
    std::uint32_t value = 0;
    for (std::size_t i = 4; i-- > 0;)
        value = value << 8 | static_cast<std::uint8_t>(bytes[at + i]);
    return value;
}

} // namespace

bool rtmp_chunks::is_coded_video(const message& m)
{
    // FLV video tag data: frame type and codec (7: AVC), then the AVC packet type.
    return m.type == video && m.payload.size() >= 2 && (static_cast<std::uint8_t>(m.payload[0]) & 0x0f) == 7 &&
           m.payload[1] == 1;
}

rtmp_chunks::rtmp_chunks(std::function<void(const message&)> on_message) : on_message_(std::move(on_message)) {}

bool rtmp_chunks::feed(std::string_view bytes)
{
    if (broken_)
        return false;
    std::size_t skipped = std::min(handshake_left_, bytes.size());
    handshake_left_ -= skipped;
    buffer_.append(bytes.substr(skipped));
    while (!broken_ && take_chunk()) {
    }
    return !broken_;
}

bool rtmp_chunks::take_chunk()
{
    std::string_view data(buffer_);
    if (data.empty())
        return false;
    // Basic header: format and chunk stream id, in one to three bytes.
    unsigned format = static_cast<std::uint8_t>(data[0]) >> 6;
    std::uint32_t id = static_cast<std::uint8_t>(data[0]) & 0x3f;
    std::size_t at = 1;
    if (id == 0 || id == 1) {
        std::size_t extra = id == 0 ? 1 : 2;
        if (data.size() < 1 + extra)
            return false;
        id = 64 + static_cast<std::uint8_t>(data[1]) + (id == 1 ? 256u * static_cast<std::uint8_t>(data[2]) : 0u);
        at += extra;
    }
    static constexpr std::size_t header_sizes[] = {11, 7, 3, 0};
    if (data.size() < at + header_sizes[format])
        return false;

    chunk_stream& stream = streams_[id];
    if (format < 3 && !stream.current.payload.empty()) {
        broken_ = true; // a new message before the last one ended
        return false;
    }
    if (format == 3 && !stream.started) {
        broken_ = true;
        return false;
    }
    std::uint32_t timestamp_field = stream.timestamp_field;
    if (format < 3)
        timestamp_field = big_endian(data, at, 3);
    std::uint32_t length = stream.length;
    std::uint8_t type = stream.current.type;
    std::uint32_t message_stream = stream.current.stream;
    if (format <= 1) {
        length = big_endian(data, at + 3, 3);
        type = static_cast<std::uint8_t>(data[at + 6]);
    }
    if (format == 0)
        message_stream = little_endian32(data, at + 7);
    at += header_sizes[format];
    std::uint32_t timestamp = timestamp_field;
    if (timestamp_field == extended_timestamp) {
        if (data.size() < at + 4)
            return false;
        timestamp = big_endian(data, at, 4);
        at += 4;
    }
    if (length > max_message_bytes) {
        broken_ = true;
        return false;
    }
    std::size_t have = stream.current.payload.size();
    std::size_t piece = std::min<std::size_t>(chunk_size_, length - std::min<std::size_t>(have, length));
    if (data.size() < at + piece)
        return false;

    // The whole chunk is here: take it.
    if (have == 0) {
        std::uint32_t base = format == 0 ? 0 : stream.current.timestamp;
        stream.current.timestamp = format == 0 ? timestamp : base + timestamp;
    }
    stream.started = true;
    stream.timestamp_field = timestamp_field;
    stream.length = length;
    stream.current.type = type;
    stream.current.stream = message_stream;
    stream.current.payload.append(data.substr(at, piece));
    buffer_.erase(0, at + piece);
    if (stream.current.payload.size() >= length) {
        if (stream.current.type == set_chunk_size && stream.current.payload.size() >= 4)
            chunk_size_ = std::max<std::uint32_t>(1, big_endian(stream.current.payload, 0, 4) & 0x7fffffff);
        on_message_(stream.current);
        stream.current.payload.clear();
    }
    return true;
}

} // namespace orbweave::test
