#ifndef DIRECTORY_KYBLANKSEPARATEDLISTING_H
#define DIRECTORY_KYBLANKSEPARATEDLISTING_H

#include <string>

class KyTferDirectory;

namespace ky_directory {

/// Reads a blank-separated listing file and appends its entries, with an empty path, to the directory.
///
/// Example of the format. A blank is any white space, including a line end:
///
///     1 , 3
///     event.log , EVT0001.LOG , LOG , 20480 , 1710491400000000000
///
/// The first line starts with two numbers and one character between them. The second number is the announced number
/// of entries: it reserves memory, at most for as many entries as the file can hold. The first number and the rest of
/// the line are ignored.
///
/// An entry has five items: file name, transfer name, type, size in bytes, and time stamp in nanoseconds since
/// 1970-01-01 UTC. One character that is not blank stands between two items; before the time stamp it must be a
/// comma. A name ends at the next blank. Several entries may share a line.
///
/// Items are parsed like a stream's `>>` with default flags in the classic locale. A number may have a sign; -1 is the
/// largest value of its type. The numbers of the header and the size have 32 bits, the time stamp has 64. A number out
/// of range is bad, and so is a name of more than 65,536 bytes.
///
/// Reading ends at the first bad or missing item; its entry is dropped. A bad header gives no entries. Neither does a
/// path that is not a readable regular file; a FIFO does not block.
///
/// @param path       path of the listing file; symbolic links are followed. The file may change during the call.
/// @param directory  receives the entries before a bad item
/// @return false if memory ran out, with the entries so far kept; true in all other cases
///
/// Blocks for file reads. Does not throw. Needs about 64 KiB of memory beside the entries.
bool ReadBlankSeparatedListing(const std::string& path, KyTferDirectory& directory);

}  // namespace ky_directory

#endif
