#pragma once

// Every bound of the media path in one table: how long each step of a stream may take
// (in the client and in its media worker), and the bounds of the calls that wait for
// those steps, derived from them so that shortening or lengthening a step can never make
// the caller give up first. The client and the media worker both read it (no Qt, no libobs).

#include <chrono>

namespace orbweave::obs {

namespace limits {

using std::chrono::milliseconds;

/// A media worker's start: spawned, libobs up, its plug-ins loaded, its graphics started.
inline constexpr milliseconds worker_start{30000};
/// One ordinary request to a worker: a listing, a lookup, its counters.
inline constexpr milliseconds worker_call{60000};
/// A worker that was sent SIGKILL: until the kernel has ended it and it is reaped. Past
/// it the process is left to the kernel.
inline constexpr milliseconds kill{2000};

/// One question to the desktop portal (the pointer modes and sources it offers).
inline constexpr milliseconds portal_query{5000};
/// The desktop (and its user, in the picker) starting a screen cast.
inline constexpr milliseconds portal_start{120000};
/// A capture source reporting its size (for a screen cast: its first format).
inline constexpr milliseconds source_size{5000};
/// An RTMP output connecting to the ingest and starting to send, or failing.
inline constexpr milliseconds output_start{10000};
/// Attempts to start the output: the second with the software encoder.
inline constexpr int connect_attempts = 2;
/// A connection cut on purpose (a connect abandoned, a stop forced) being released.
inline constexpr milliseconds connection_release{2000};
/// A stopping output reporting that it stopped; then its connection is cut.
inline constexpr milliseconds output_stop{10000};
/// The work of a stream's start or end that waits on nothing outside the worker (its
/// canvas, encoders and scene; libobs's shutdown): well under a second here.
inline constexpr milliseconds own_work{3000};

/// A stream that keeps reconnecting to an ingest that has gone, before it ends.
inline constexpr milliseconds ingest_outage{60000};
/// A connected stream whose data the ingest does not take, before it reconnects.
inline constexpr milliseconds send_stall{10000};

} // namespace limits

/// The bounds of one stream's steps as its worker applies them; tests shorten them.
struct stream_limits {
    std::chrono::milliseconds portal_start = limits::portal_start;
    std::chrono::milliseconds source_size = limits::source_size;
    std::chrono::milliseconds output_start = limits::output_start;
    std::chrono::milliseconds output_stop = limits::output_stop;
    std::chrono::milliseconds ingest_outage = limits::ingest_outage;
    std::chrono::milliseconds send_stall = limits::send_stall;
};

/// How long a worker may take to answer a stream order: the portal's questions and its
/// picker, the source's size, every connect attempt with the release of an abandoned
/// one, and the worker's own work.
constexpr std::chrono::milliseconds stream_start_limit(const stream_limits& steps)
{
    return limits::portal_query + steps.portal_start + steps.source_size +
           limits::connect_attempts * (steps.output_start + limits::connection_release) + limits::own_work;
}

/// How long a stream worker's orderly shutdown may take: its output stopping (or its
/// connection cut), then libobs's shutdown.
constexpr std::chrono::milliseconds stream_stop_limit(const stream_limits& steps)
{
    return steps.output_stop + limits::connection_release + limits::own_work;
}

static_assert(stream_start_limit({}) > limits::portal_start + limits::source_size,
              "a stream order outlasts the desktop's picker");
static_assert(stream_stop_limit({}) > limits::output_stop, "a worker's shutdown outlasts its output's stop");

} // namespace orbweave::obs
