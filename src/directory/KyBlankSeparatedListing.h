#ifndef DIRECTORY_KYBLANKSEPARATEDLISTING_H
#define DIRECTORY_KYBLANKSEPARATEDLISTING_H

#include <cstddef>
#include <istream>

class KyTferDirectory;

namespace ky_directory {

/// Reads a listing in the blank-separated form and adds its entries, with an empty path, to those that the
/// directory holds already.
///
/// The form, in which a blank is any white space and a line end is one too:
///
///     1 , 3
///     event.log , EVT0001.LOG , LOG , 20480 , 1710491400000000000
///
/// The first line starts with two numbers with any one character between them; both are read and dropped, and
/// the rest of the line with them. Then each entry is a file name, a transfer name, a type, a size in bytes
/// and a time stamp in nanoseconds since 1970-01-01 UTC, each but the last followed by one character that is
/// not blank. The one before the time stamp is a comma; the others may be any. A name reaches to the next
/// blank. Entries need not have lines of their own.
///
/// Everything is read as `>>` reads it with the flags of a new stream and in the classic locale, whatever the
/// stream and the process have set: a number may have a sign (-1 is the largest value of its type) and is bad
/// if it exceeds its type, 32 bits unsigned for the header's numbers and the size, 64 bits for the time
/// stamp. One thing is stricter: a name of more than 65,536 bytes is bad.
///
/// The listing ends where an item is bad or missing, and the entry that lacks it is dropped. A bad header, or
/// a stream that was not good to begin with, gives no entries.
///
/// @param in         read up to the end of the listing, with the state that `>>` leaves there: failed unless
///                   a wrong character before a time stamp has ended it
/// @param directory  takes the entries; those that were read before a bad item stay
/// @return the number of entries read
///
/// Blocks as long as the stream's source does. Does not throw, even if the stream is set to.
size_t ReadBlankSeparatedListing(std::istream& in, KyTferDirectory& directory);

}  // namespace ky_directory

#endif
