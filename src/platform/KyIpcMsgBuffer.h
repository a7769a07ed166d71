#ifndef PLATFORM_KYIPCMSGBUFFER_H
#define PLATFORM_KYIPCMSGBUFFER_H

class KyIpcMsgUtil;

/// The bytes of one message, with a position up to which they have been read.
///
/// The buffer grows as it is written. At least four zero bytes stand behind its last byte at any time, so
/// that looking at the first integer of a short or empty message reads nothing foreign and yields 0.
///
/// A buffer has no lock; one thread uses it at a time.
class KyIpcMsgBuffer {
public:
    /// An empty buffer.
    ///
    /// @param sizeHint  expected length in bytes; a hint, neither a limit nor reserved at once. 0 and
    ///                  negative values are fine.
    explicit KyIpcMsgBuffer(int sizeHint);
    ~KyIpcMsgBuffer();
    KyIpcMsgBuffer(const KyIpcMsgBuffer&) = delete;
    KyIpcMsgBuffer& operator=(const KyIpcMsgBuffer&) = delete;

    /// The bytes from the first on; never null. The buffer's own; valid until it is next written or cleared.
    unsigned char* GetBuf() const;

    /// Number of bytes written or received.
    int GetLength() const;

    /// Adds `count` bytes at the end; `bytes` may be null when `count` is 0.
    ///
    /// @return true if they were added; false, and nothing has changed, if `count` is negative, the message
    ///         would pass 2^31 - 1 bytes, or memory has run out
    bool Append(const unsigned char* bytes, int count);

    /// Forgets all bytes and moves the reading position to the start; keeps the memory.
    void Clear();

private:
    friend class KyIpcMsgUtil;

    bool Reserve(long long total);

    int m_sizeHint;
    unsigned char* m_bytes;  // owned, from malloc; m_tail until the first byte is written
    int m_length;
    long long m_capacity;  // room for data, the zero bytes behind it not counted
    int m_position;        // of the next byte to extract, 0 to m_length
    mutable unsigned char m_tail[4];
};

#endif
