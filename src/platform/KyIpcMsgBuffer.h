#ifndef PLATFORM_KYIPCMSGBUFFER_H
#define PLATFORM_KYIPCMSGBUFFER_H

class KyIpcMsgUtil;

/// The bytes of one message, with a reading position.
///
/// The buffer grows when it is written. At least four zero bytes follow its last byte at any time: reading
/// the first integer of a short or empty message yields 0 and stays within the buffer.
///
/// A buffer has no lock; one thread uses it at a time. No operation blocks or throws.
class KyIpcMsgBuffer {
public:
    /// An empty buffer.
    ///
    /// @param sizeHint  expected length in bytes; not a limit, and not reserved at once. May be 0 or negative
    explicit KyIpcMsgBuffer(int sizeHint);
    ~KyIpcMsgBuffer();
    KyIpcMsgBuffer(const KyIpcMsgBuffer&) = delete;
    KyIpcMsgBuffer& operator=(const KyIpcMsgBuffer&) = delete;

    /// The bytes; never null. The buffer owns them; they are valid until the buffer is written or cleared.
    unsigned char* GetBuf() const;

    /// Number of bytes written or received.
    int GetLength() const;

    /// Appends `count` bytes; `bytes` may be null if `count` is 0.
    ///
    /// @return false, with nothing changed, if `count` is negative, the message would become longer than 2^31
    ///         - 1 bytes, or memory has run out
    bool Append(const unsigned char* bytes, int count);

    /// Removes all bytes and resets the reading position; keeps the memory.
    void Clear();

private:
    friend class KyIpcMsgUtil;

    bool Reserve(long long total);

    int m_sizeHint;
    unsigned char* m_bytes;  // from malloc, owned; m_tail before the first write
    int m_length;
    long long m_capacity;  // without the zero bytes
    int m_position;        // next byte to extract, 0 to m_length
    mutable unsigned char m_tail[4];
};

#endif
