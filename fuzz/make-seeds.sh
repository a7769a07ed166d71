#!/usr/bin/env bash
# Writes the seeds in corpus/. Each covers something that no other covers. The meaning of the bytes is how the
# fuzzers read their input: see Fuzz.h and *_fuzz.cpp.
set -euo pipefail
cd "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")"

# seed TARGET NAME BYTES...: the bytes as printf escapes, joined
seed() {
    mkdir -p "corpus/$1"
    local IFS=
    # shellcheck disable=SC2059  # the bytes are the format
    printf "${*:3}" >"corpus/$1/$2"
}

# Messages: the type, the server, then texts with their lengths in front.
int() { printf '\\x%02x\\x%02x\\x00\\x00' $(($1 & 255)) $(($1 >> 8 & 255)); }
text() { printf '%s%s' "$(int ${#1})" "$1"; }
base() { printf '%s' "$(int "$1")" "$(int 3)" "$(text 17)" "$(text context)" "$(text r0)"; }
record() { printf '%s' "$(base 5)" "$(int "$1")" "$(int "$2")" "$(int "$3")" \
    "$(text orig)" "$(text xfer)" "$(text /dir/)" "$(text 'File transfer')"; }
seed message_fuzz fetch "$(base 1)" "$(text xfer.bin)" "$(text orig.bin)" "$(int 20480)"
seed message_fuzz push "$(base 2)" "$(text /tmp/up/fw.bin)" "$(text '')" "$(text '')" "$(int 0)"
seed message_fuzz directory "$(base 3)"
seed message_fuzz reply "$(base 4)" "$(int 1)" "$(text accepted)"
seed message_fuzz status-running "$(record 3 100 29)"
seed message_fuzz status-complete "$(record 2 5 5)"
seed message_fuzz status-unknown-number "$(record 77 0 0)"
seed message_fuzz cancel "$(base 6)"
seed message_fuzz text-too-long "$(int 6)" "$(int 0)" '\xff\xff\xff\x7f'
seed message_fuzz shorter-than-a-type '\x05'

# Frames: four lengths of pieces, then steps of kind, length of text, text and what the kind needs.
seed frame_fuzz whole '\xff\xff\xff\xff' '\x00\x03abc' '\x00\x00'
seed frame_fuzz long-byte-by-byte '\x00\x00\x00\x00' '\x02\x08abcdefgh\x20'
seed frame_fuzz mark-in-message '\x02\x00\x05\x01' '\x03\x04abcd\x03' '\x03\x01x\x02'
seed frame_fuzz torn '\x07\x03\x01\xff' '\x04\x05abcde\x0b' '\x00\x02ok'
seed frame_fuzz damaged-end '\xff\x00\xff\x00' '\x05\x03abc\x00\xc2' '\x05\x03abc\x04\xff'
seed frame_fuzz marks-only '\x01\x01\x01\x01' '\x06\x00\x04' '\x06\x00\x03' '\x06\x04\xff\xff\xff\x7f\x04'
seed frame_fuzz garbage '\x09\x09\x09\x09' '\x07\x10no frame at all.' '\x00\x01x'

# Listings: the reader, four bytes for page and lookup, the file.
blank='1 , 2\n' entry='event.log , E1.LOG , LOG , 20480 , 1710491400000000000\n'
header='1,2\nName,Transfer,Type,Size,Date\n'
seed listing_fuzz blanks '\x00\x00\x02E1' "$blank" "$entry" 'a , b , c , 1 , 2\n'
seed listing_fuzz blanks-bad-separator '\x00\x01\x01ab' "$blank" "$entry" 'a , b , c , 1 ; 2\n'
seed listing_fuzz blanks-signs-and-limits '\x00\x00\x09ab' "$blank" 'a , b , c , -1 , -1\nd , e , f , 4294967296 , 1'
seed listing_fuzz blanks-no-header '\x00\x00\x00ab' 'x'
seed listing_fuzz commas '\x01\x00\x05E1' "$header" 'event.log,E1.LOG,LOG,20480,2024-03-15T08:30:00.250\n'
seed listing_fuzz commas-seconds-and-missing-fields '\x01\x01\x05b,' "$header" 'a,b,c,1,1710491400\nd,e\n\n'
seed listing_fuzz commas-quotes '\x01\x00\x01b,' "$header" '"a ""1"", x",b,c,-5,-1\r\n"open,b,c,1,2\n'
seed listing_fuzz commas-wide '\x03\x00\x01b,' "$header" 'gr\xc3\xbc\xc3\x9fe,b,c,1,9-99-9T9\n\xff\n'
seed listing_fuzz commas-one-line '\x01\x00\x01b,' '1,2'

# Conversations: the search, Init's failing accesses, how they fail, the points' value; then the steps.
start='\x00\x00\x00\x01' found='\xc0\x00\x00\x01'
fetch='\x00\x00\x0a' ready='\x07\x00\x00' whole='\x0b\x00\x0a' settle='\x06' cleared='\x07\x05\x00'
directory='\x02' named='\x07\x07\x00' size10='\x0a\x0a' push='\x01\x01\x0a'
device='\x04\x00\x04\x00\x04\x00\x04\x00' # what happens in the four sleeps of a push: nothing
answers='\x0b\x20\x0a'  # the device answers requests by itself
seed device_fuzz answered "$start" "$answers" "$fetch" "$settle"
seed device_fuzz answered-listing "$start" "$answers" "$directory" "$settle" '\x03\x00'
seed device_fuzz silent "$found" "$fetch" '\x05\xb3' '\x05\x02'
seed device_fuzz fetched "$start" "$whole" "$fetch" "$ready" "$settle"
seed device_fuzz fetched-twice "$start" "$whole" "$fetch" "$ready" "$settle" "$cleared" "$ready" "$settle"
seed device_fuzz too-short "$start" '\x0b\x00\x05' "$fetch" "$ready" "$settle" '\x05\xb5'
seed device_fuzz nothing-comes "$start" '\x0b\x01\x05' "$fetch" "$ready" "$settle"
seed device_fuzz grows "$start" '\x0b\x02\x0a' "$fetch" "$ready" "$settle" '\x0c' "$settle"
seed device_fuzz proxy-throws "$start" '\x0b\x10\x0a' "$fetch" '\x0e\xff\x01' "$ready" "$settle"
seed device_fuzz late-worker "$start" '\x0b\x02\x0a' "$fetch" "$ready" "$settle" '\x05\xb5' "$fetch" '\x0c' "$settle"
seed device_fuzz listed "$start" "$whole" "$directory" "$size10" "$named" "$settle" '\x03\x00'
seed device_fuzz no-listing "$start" "$directory" '\x07\x01\x00' '\x05\x02'
seed device_fuzz directory-refused "$start" '\x0e\x03\x00' "$directory" "$fetch"
seed device_fuzz pushed "$start" "$push" "$device" "$settle"
seed device_fuzz push-within-fetch "$start" "$whole" "$fetch" "$push" "$ready" "$device" "$settle"
seed device_fuzz push-of-no-file "$start" '\x01\x01\xff'
seed device_fuzz lands-by-itself "$start" "$fetch" '\x0d\x05' '\x0d\x05' "$settle"
seed device_fuzz stopped "$start" '\x0b\x02\x0a' "$fetch" "$ready" "$settle" '\x04\xff'
seed device_fuzz never-found '\xff\x00\x00\x01'
seed device_fuzz usb '\x00\x01\x00\x01' '\x0f\x01\x03'

# The service: the device's faults, then requests of kind, reply FIFO, transaction, server and what the kind needs.
name='\x00' r0='\x00\x0217\x03'
seed service_fuzz all '\x00' '\x03' "$r0" '\x00' "$r0" "$name" '\x01' '\x01' "$r0" '\x00' "$name" '\x02' "$r0" '\x05' "$r0"
seed service_fuzz early '\xf0' '\x03' "$r0" '\x00' "$r0" "$name" '\x01'
seed service_fuzz silent-device '\x01\x01\x01\x01' '\x00' "$r0" "$name" '\x01' '\x00' "$r0" "$name" '\x01' '\x03' "$r0"
seed service_fuzz wrong-size '\x02\x00\x00\x00' '\x00' "$r0" "$name" '\x01' '\x02' "$r0"
seed service_fuzz stuck '\x30\x00\x00\x00' '\x00' "$r0" "$name" '\x01' '\x01' "$r0" '\x00' "$name"
seed service_fuzz reply-fifos '\x00' '\x03\x03\x00\x00' '\x03\x04\x00\x00' '\x03\x05\x00\x00' '\x03\x06\x00\x00' '\x03\x07\x00\x00'
seed service_fuzz bad-names '\x00' '\x00' "$r0" '\x02\x01' '\x00' "$r0" '\x04\x01' '\x01' "$r0" '\x07\x03'
seed service_fuzz damaged '\x00' '\x0d' "$r0" "$name" '\x01' '\x08\xff' '\x0e\x04\x05\x00\x00\x00' '\x0f\x05\xf4\x4b\x79\xa6\x01'
