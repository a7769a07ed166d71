#ifndef PLATFORM_KYIPCMSGUTIL_H
#define PLATFORM_KYIPCMSGUTIL_H

#include <string>

class KyIpcMsgBuffer;

/// Writes and reads the parameters of a message.
///
/// On the wire, an integer is four bytes in little-endian order; a string is its length as an integer,
/// followed by its bytes, which may have any value.
///
/// Extraction never reads past the buffer's last byte. If the rest of the buffer is too short, or a string's
/// length is negative or larger than the rest, the result is 0 or the empty string. The reading position moves
/// to the end then: later extractions yield 0 and empty strings too. The announced length of a string is
/// checked before memory is allocated for it.
///
/// No `buffer` may be null; it stays the caller's. One thread uses a buffer at a time. No operation blocks.
/// Only ExtractStringParam() throws.
class KyIpcMsgUtil {
public:
    /// Appends an integer. @return 0; another value if the buffer could not grow
    static int PutInteger(KyIpcMsgBuffer* buffer, int value);

    /// Appends a string. @return 0; another value, with nothing appended, if the buffer could not grow
    static int PutStringParam(KyIpcMsgBuffer* buffer, const std::string& value);

    /// The next integer of the buffer; 0 if the buffer holds none.
    static int ExtractInteger(KyIpcMsgBuffer* buffer);

    /// Stores the next string of the buffer in `value`, or the empty string if the buffer holds none.
    ///
    /// @return 0; another value if the buffer holds none
    /// @throws std::bad_alloc if memory has run out
    static int ExtractStringParam(KyIpcMsgBuffer* buffer, std::string& value);

    /// The integer at the start of `bytes`, of which at least four must be readable.
    static int ExtractInteger(const unsigned char* bytes);
};

#endif
