#pragma once

#include <chrono>
#include <cstddef>

namespace vela {

// The broker's quotas, read from velad.conf (see BrokerConfig). Every one of
// them bounds what one peer, or all of them together, can make the broker
// hold or do; the defaults fit a module's few dozen peers with room to spare
// and keep the broker far below the memory its service unit allows.
struct Limits
{
    // Connections at a time, in total and per user (peers whose user is
    // unknown count as one user). Connections beyond are answered with
    // -32014 and closed.
    std::size_t maxConnections = 256;
    std::size_t maxConnectionsPerUser = 64;
    // A connection that has not said hello this long after it was accepted
    // is told so and closed.
    std::chrono::milliseconds helloTimeout{5000};
    // Per connection: states owned, fetches and set requests waiting for
    // their owner's answer.
    std::size_t maxStatesPerConnection = 16384;
    std::size_t maxFetchesPerConnection = 64;
    std::size_t maxPendingSetsPerConnection = 64;
    // Longest state path (bytes); also bounds the text of a matcher criterion.
    std::size_t maxPathLength = 256;
    // What all stored states together may take: path, value text and
    // kStateOverhead per state (bytes). Adds and changes beyond are refused.
    std::size_t maxStoredBytes = 32 * 1024 * 1024;
    // Unread output of one connection, and of all together (bytes): beyond
    // the first the connection is dropped, beyond the second the connection
    // with the largest backlog is.
    std::size_t maxBacklogBytes = 4 * 1024 * 1024;
    std::size_t maxTotalBacklogBytes = 64 * 1024 * 1024;
    // The kernel's send buffer of each connection (SO_SNDBUF; the kernel
    // doubles it). Without it the kernel grows the buffer of a reader that
    // does not read to 4 MiB, on top of the backlog the broker holds.
    std::size_t sendBufferBytes = 256 * 1024;
    // How long a set request waits for the owner's answer.
    std::chrono::milliseconds setTimeout{5000};
    // Log lines: all of them (global) and those caused by one peer, as a
    // token bucket (lines per second, burst); and the length of one line
    // (bytes).
    double logRate = 20;
    unsigned logBurst = 100;
    double peerLogRate = 1;
    unsigned peerLogBurst = 10;
    std::size_t logLineMax = 1024;
};

// What a state costs the stored-value budget besides its path and value:
// the broker's bookkeeping of one state, rounded up (bytes).
constexpr std::size_t kStateOverhead = 128;

}  // namespace vela
