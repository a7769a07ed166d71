#ifndef ENGINE_KYTRANSACTION_H
#define ENGINE_KYTRANSACTION_H

#include <string>

namespace ky_engine {

/// One fetch, listing or push. Made when its request is accepted; a listing gets a new one when the device names
/// its file. Worker and monitor have copies. They never read their job from the status record, because other
/// transactions write it.
struct Transaction {
    enum Kind { NONE, FETCH, LISTING, PUSH };
    enum WorkerState {
        UNCLAIMED,  ///< has not received the whole file
        CLAIMED,    ///< has it, and will write the last row
        COMPLETED,  ///< has written it
    };

    unsigned long long number = 0;  ///< of this transaction; 0 for none
    unsigned long long requestNumber =
        0;  ///< number of its request; stays the same when the device names a listing's file
    Kind kind = NONE;
    std::string transferName;  ///< of the file, on the way between card and device
    std::string
        originalName;       ///< a pushed file's name on the card; "DIRREQ" for a listing; empty for a fetch
    std::string directory;  ///< where the file lies during the transfer; ends with "/"
    std::string path;       ///< directory and name
    bool leavesDirectory = false;    ///< the name has a part ".."; the file counts as absent
    std::string downloadDirectory;   ///< where a fetched file ends up; ends with "/"
    unsigned int expectedSize = 0;   ///< in bytes
    bool answered = false;           ///< the device has said "READY" or named the listing
    WorkerState worker = UNCLAIMED;  ///< how far the worker is
    bool ended = false;              ///< a row has ended it
    bool monitored = true;           ///< a monitor thread enforces the time limit
    long long deadline = 0;          ///< wall-clock seconds; ends a transaction that no monitor watches

    /// Sets name, directory and what follows from them.
    void SetFile(const std::string& fileName, const std::string& inDirectory);
};

/// A file size as a 32-bit count. Larger sizes become UINT_MAX, so that they never equal a small expected size.
unsigned int SaturateTo32Bits(unsigned long long size);

/// @return false, and `size` as it was, if there is no regular file at `path`
bool GetFileSize(const std::string& path, unsigned long long& size);

}  // namespace ky_engine

#endif
