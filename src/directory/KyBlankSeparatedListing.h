#ifndef DIRECTORY_KYBLANKSEPARATEDLISTING_H
#define DIRECTORY_KYBLANKSEPARATEDLISTING_H

#include <string>

class KyTferDirectory;

namespace ky_directory {

/// Reads a listing file in the blank-separated form and adds its entries, with an empty path, to those that
/// the directory holds already.
///
/// The form, in which a blank is any white space and a line end is one too:
///
///     1 , 3
///     event.log , EVT0001.LOG , LOG , 20480 , 1710491400000000000
///
/// The first line starts with two numbers with any one character between them. The second one should be the
/// number of entries: memory for so many is taken at once, but never for more than the file can hold. The
/// first number and the rest of the line are dropped. Then each entry is a file name, a transfer name, a type,
/// a size in bytes and a time stamp in nanoseconds since 1970-01-01 UTC, each but the last followed by one
/// character that is not blank. The one before the time stamp is a comma; the others may be any. A name
/// reaches to the next blank. Entries need not have lines of their own.
///
/// Everything is read as a stream's `>>` reads it with its first settings and in the classic locale: a number
/// may have a sign (-1 is the largest value of its type) and is bad if it exceeds its type, 32 bits unsigned
/// for the header's numbers and the size, 64 bits for the time stamp. One thing is stricter: a name of more
/// than 65,536 bytes is bad.
///
/// The listing ends where an item is bad or missing, and the entry that lacks it is dropped. A bad header
/// gives no entries, and neither does a path that is not that of a regular file that can be read: a FIFO is
/// not waited for.
///
/// @param path       path of the listing file; a symbolic link is followed. The file may change meanwhile.
/// @param directory  takes the entries; those that were read before a bad item stay
/// @return false if memory has run out; the entries before stay. True otherwise, whatever the file was.
///
/// Blocks for the file. Does not throw. Needs memory for the entries and for about 64 KiB besides.
bool ReadBlankSeparatedListing(const std::string& path, KyTferDirectory& directory);

}  // namespace ky_directory

#endif
