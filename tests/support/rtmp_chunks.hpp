#pragma once

// Reads what an RTMP publisher sends (the client-to-server direction of a connection)
// and tells each whole message it carried: its type, stream and payload. Used to see
// exactly when a stream's first coded video frame reaches the ingest.

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace orbweave::test {

class rtmp_chunks {
public:
    /// RTMP message types this reader acts on or callers look for.
    static constexpr std::uint8_t set_chunk_size = 1;
    static constexpr std::uint8_t audio = 8;
    static constexpr std::uint8_t video = 9;

    struct message {
        std::uint8_t type = 0;
        std::uint32_t stream = 0;
        std::uint32_t timestamp = 0;
        std::string payload;
    };

    /// Whether a video message carries a coded frame rather than the decoder's
    /// configuration: FLV's AVC packet type 1 (a NAL unit).
    static bool is_coded_video(const message& m);

    explicit rtmp_chunks(std::function<void(const message&)> on_message);

    /// Reads the next bytes the publisher sent, in order, in pieces of any size. False
    /// once the bytes do not read as RTMP (the rest is ignored).
    bool feed(std::string_view bytes);

private:
    struct chunk_stream {
        message current;
        std::uint32_t length = 0;
        std::uint32_t timestamp_field = 0; // as last sent: 0xffffff means an extended one follows
        bool started = false;
    };

    /// Acts on one whole chunk at the front of buffer_; false when more bytes are needed.
    bool take_chunk();

    std::function<void(const message&)> on_message_;
    std::string buffer_;
    std::size_t handshake_left_ = 1 + 1536 + 1536; // C0, C1 and C2
    std::uint32_t chunk_size_ = 128;
    std::map<std::uint32_t, chunk_stream> streams_;
    bool broken_ = false;
};

} // namespace orbweave::test
