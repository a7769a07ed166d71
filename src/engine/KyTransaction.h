#ifndef ENGINE_KYTRANSACTION_H
#define ENGINE_KYTRANSACTION_H

#include <string>

namespace ky_engine {

/// One fetch, listing or push. It is made when its request is accepted, and made anew when the device names the
/// file of a listing. Worker and monitor get it by value. They never take their job from the status record,
/// which others write.
struct Transaction {
    enum Kind { NONE, FETCH, LISTING, PUSH };
    enum Worker {
        OPEN,       ///< has not got the whole file
        CLAIMED,    ///< has it, and will write the last row
        COMPLETED,  ///< has written it
    };

    unsigned long long number = 0;   ///< of this transaction; 0 for none
    unsigned long long request = 0;  ///< of the request; a listing keeps it when the device names the file
    Kind kind = NONE;
    std::string name;               ///< of the file, on the way between card and device
    std::string originalName;       ///< of a pushed file on the card; the record's word for a listing
    std::string directory;          ///< where the file lies during the transfer; ends with "/"
    std::string path;               ///< of the file there
    bool leavesDirectory = false;   ///< the path leads elsewhere; such a file is taken for absent
    std::string downloadDirectory;  ///< where a fetched file ends up; ends with "/"
    unsigned int expectedSize = 0;  ///< in bytes
    bool answered = false;          ///< the device has said "READY" or named the listing
    Worker worker = OPEN;           ///< what the worker of a fetch or listing has said
    bool ended = false;             ///< nothing has to end it any more
    bool watched = true;            ///< a monitor ends it in time
    long long deadline = 0;         ///< wall-clock seconds; ends a transaction that no monitor watches

    /// Sets name, directory and what follows from them.
    void Place(const std::string& fileName, const std::string& inDirectory);
};

/// A count of the record. A file that is larger than the record can say must not look like a small one.
unsigned int CountOf(unsigned long long size);

/// @return false, and `size` as it was, if there is no regular file at `path`
bool GetFileSize(const std::string& path, unsigned long long& size);

}  // namespace ky_engine

#endif
