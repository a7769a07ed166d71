#ifndef ENGINE_KYTRANSACTION_H
#define ENGINE_KYTRANSACTION_H

#include <string>

namespace ky_engine {

/// One fetch, listing or push. Created when its request is accepted. When the device names the file of a listing, a
/// new transaction replaces the first. Workers and monitors use copies or numbers, never the status record's names:
/// other transactions overwrite those.
struct Transaction {
    enum Kind { NONE, FETCH, LISTING, PUSH };
    enum WorkerState {
        UNCLAIMED,  ///< not started, fetching, or failed
        CLAIMED,    ///< has the complete file; will write the last update
        COMPLETED,  ///< has written the last update
    };

    unsigned long long number = 0;         ///< unique; 0 for none
    unsigned long long requestNumber = 0;  ///< the number at the request; a listing's number changes later
    Kind kind = NONE;
    std::string transferName;        ///< the file's name on the device side
    std::string originalName;        ///< name on the card; "DIRREQ" for a listing; empty for a fetch
    std::string directory;           ///< of the file during the transfer; ends with "/"
    std::string path;                ///< directory and transfer name; unused for a push
    bool leavesDirectory = false;    ///< the name has a part ".."; the file counts as absent
    std::string downloadDirectory;   ///< of a fetched file after the transfer; ends with "/"
    unsigned int expectedSize = 0;   ///< in bytes
    bool answered = false;           ///< the device has said "READY" or named the listing
    WorkerState worker = UNCLAIMED;  ///< how far the worker is
    bool ended = false;              ///< an update has ended the transaction
    bool monitored = true;           ///< a monitor enforces the time limit
    long long deadline = 0;          ///< wall-clock seconds; used if not monitored

    /// Sets transferName, directory, path and leavesDirectory.
    void SetFile(const std::string& fileName, const std::string& inDirectory);
};

/// Converts a file size. Sizes beyond 32 bits become UINT_MAX; truncated, they could equal the expected size.
unsigned int SaturateTo32Bits(unsigned long long size);

/// @return false if there is no regular file at `path`; `size` is then unchanged
bool GetFileSize(const std::string& path, unsigned long long& size);

}  // namespace ky_engine

#endif
