#ifndef FUZZ_CALLER_H
#define FUZZ_CALLER_H

#include <map>
#include <string>
#include <utility>

#include "fuzz/Wire.h"

/// Number of messages by reply FIFO and context.
using Counts = std::map<std::pair<std::string, std::string>, size_t>;

/// The callers of the service, as the input says. Their reply FIFOs are "r0" and "r1".
class Caller {
public:
    static constexpr char kOutgoing[] = "/var/local/tal/up";
    static constexpr size_t kMostBytes = 60000;  ///< of a stream; less than the capacity of a FIFO

    explicit Caller(fuzz::Input& input) : m_input(input) {}

    /// The bytes that the callers write: requests, damaged requests and garbage.
    std::string Stream();

    /// The replies to a stream: one for each whole request.
    ///
    /// @param requests  gets the number of whole requests, also of those with an unknown reply FIFO
    static Counts DueReplies(const std::string& stream, size_t& requests);

private:
    fuzz::Message Request(unsigned kind);
    std::string Name();

    fuzz::Input& m_input;
    int m_requests = 0;
};

#endif
