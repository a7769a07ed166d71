#ifndef PLATFORM_KYIPCMSGUTIL_H
#define PLATFORM_KYIPCMSGUTIL_H

#include <string>

class KyIpcMsgBuffer;

/// Writes and reads the parameters of a message.
///
/// On the wire an integer is four bytes, the lowest first, whatever the machine; a string is its length as
/// such an integer and then its bytes, which may be any.
///
/// Extraction never reads behind the buffer's last byte. Where the rest of the buffer is too short for what
/// is asked, or a string's length is negative or larger than the rest, the result is 0 or the empty string
/// and the position moves to the end, so that every later extraction yields the same. Nothing of a claimed
/// size is allocated before it has been found to be there.
class KyIpcMsgUtil {
public:
    /// Appends an integer. @return 0, or another value if the buffer could not grow
    static int PutInteger(KyIpcMsgBuffer* buffer, int value);

    /// Appends a string. @return 0, or another value, with nothing appended, if the buffer could not grow
    static int PutStringParam(KyIpcMsgBuffer* buffer, const std::string& value);

    /// The next integer of the buffer, or 0 if it holds none.
    static int ExtractInteger(KyIpcMsgBuffer* buffer);

    /// Stores the next string of the buffer in `value`, or the empty string if it holds none.
    ///
    /// @return 0 if there was one, another value if not
    /// @throws std::bad_alloc if there is no memory for it
    static int ExtractStringParam(KyIpcMsgBuffer* buffer, std::string& value);

    /// The integer that stands at the start of `bytes`, of which at least four must be readable.
    static int ExtractInteger(const unsigned char* bytes);
};

#endif
