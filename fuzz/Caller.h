#ifndef FUZZ_CALLER_H
#define FUZZ_CALLER_H

#include <map>
#include <string>
#include <utility>

#include "fuzz/Wire.h"

/// How many messages there are for a reply FIFO and with a context.
using Counts = std::map<std::pair<std::string, std::string>, size_t>;

/// Those who ask the service, as the input says. They have the reply FIFOs "r0" and "r1".
class Caller {
public:
    static constexpr char kOutgoing[] = "/var/local/tal/up";
    static constexpr size_t kMostBytes = 60000;  ///< of a stream; a FIFO holds a little more

    explicit Caller(fuzz::Input& input) : m_input(input) {}

    /// What they write to the service: requests, damaged ones, and what is none.
    std::string Stream();

    /// The replies that are due for what the service reads from a stream: one for each whole request.
    ///
    /// @param requests  gets the number of whole requests, those without a FIFO for the reply included
    static Counts DueReplies(const std::string& stream, size_t& requests);

private:
    fuzz::Message Request(unsigned kind);
    std::string Name();

    fuzz::Input& m_input;
    int m_requests = 0;
};

#endif
