// Path grammar: classifying and taking apart the path syntaxes the system
// accepts side by side.
//
//   /unix/path           C:\drive\path         \\server\share\path
//   \\?\C:\long\path     \\?\UNC\server\share  host:/export/path (NFS)
//   host:C:\path         host:\\?\C:\path
//
// Both the backslash and "/" are separators everywhere ("slash" below means
// either).  Nothing here touches the file system.  The character-buffer forms
// are the real ones and work in place on the caller's buffer; the
// std::string overloads run them on the string's own characters and then cut
// the string at the new terminator.
//
// Classification functions answer 0 or false for anything malformed and
// never log.  Buffer-filling functions return 0, 0x80000003 for a null
// argument or a malformed path, 0xE0FF0101 when the caller's buffer is too
// small, 0xE0FF0104 when a buffer could not be grown; they leave their
// outputs terminated.  Only PathMatch logs, for an unknown match type.
#pragma once

#include "qsStatus.h"

#include <string>

class ZBuffer;
class ZCString;

namespace qsPath {

// What GetFormat tells apart: exactly one bit, or 0.
enum eFormat : unsigned {
    eFormatUnknown = 0,        // null, empty, relative or malformed
    eFormatUnc = 1,            // \\server\share...
    eFormatLongUnc = 2,        // \\?\UNC\server\share...
    eFormatDrive = 4,          // C:\...
    eFormatLongDrive = 8,      // \\?\C:\...
    eFormatHostDrive = 16,     // host:C:\...
    eFormatHostLongDrive = 32, // host:\\?\C:\...
    eFormatUnix = 64,          // /...
    eFormatNfs = 128,          // host:/export/path
};
// Formats combine into the mask of ValidateFormat.
constexpr eFormat operator|(eFormat a, eFormat b) {
    return eFormat(unsigned(a) | unsigned(b));
}

// The relation PathMatch tests between its first path a and second path b.
enum ePathMatchType {
    ePathMatchExact = 0, // a equals b
    ePathMatchChild = 1, // a lies strictly below b
    ePathMatchExactOrChild = 2,
    ePathMatchParent = 3, // b lies strictly below a
    ePathMatchExactOrParent = 4,
};

// Fixed limits of the UNC split, without terminators: the output buffers of
// SplitUnc2/SplitUnc need 256, 81 and 257 bytes, those of SplitDfs 340 and 257.
constexpr unsigned kMaxUncServer = 255;
constexpr unsigned kMaxUncShare = 80;
constexpr unsigned kMaxUncRest = 256;
constexpr unsigned kMaxDfsRoot = 339; // counting its two leading backslashes

bool IsSlash(char c);

// Length of a long-path prefix: 4 for \\?\C:\..., 8 for \\?\UNC\...
// (backslashes only, "UNC" in any case), else 0.  False when the path begins
// with two slashes and "?" but is not one of those two forms, or when a
// slash follows \\?\UNC\.  *isDrive (when given) tells whether length is 4.
// Null or empty: true, length 0.
bool GetLongPathPrefixLen(const char* path, int& length, bool* isDrive);

// First rule that fits: two backslashes (by their long-path prefix: none 1,
// UNC 2, drive 8, malformed 0); "/" 64; letter ":" backslash 4; else by what
// follows the first ":": "/" 128, a drive path 16, a long drive path 32.
// So C:/x reads as the NFS form with host C, and //?/C:/x as a Unix path.
eFormat GetFormat(const char* path);
// True when the path's format is not 0 and is among the bits of `allowed`.
bool ValidateFormat(const char* path, eFormat allowed);

// Tests for the candidates \ / : * ? " < > | less those whose bits are set in
// allowMask (0x1 the backslash ... 0x100 "|", in that order).  When one is
// found and illegalList is given, the list receives the whole remaining set,
// blank-separated, not only the characters found.  Null or empty: false.
bool HasIllegalPathChars(const char* path, unsigned long allowMask, ZCString* illegalList);

// The last slash of either kind; the first backslash, or with eitherKind the
// first slash of either kind.  Pointers into the path, or null.
const char* GetLastSlash(const char* path);
const char* GetNextSlash(const char* path, bool eitherKind);

// The first node: "/" for a path beginning with "/"; after a long-path
// prefix (or the two backslashes of a UNC path) the characters up to the
// first slash or ":", or a drive root such as C:\ whole.
qsStatus GetFirstNode(const char* path, char* buffer, unsigned long size);
qsStatus GetFirstNode(const char* path, std::string& node);
// The last node, one trailing slash ignored; "/" alone gives "/".  The walk
// back stops on the first character without taking it, so a path without
// any slash loses its first character (abc gives bc): long-standing
// behaviour, kept exactly; callers use it on paths with a separator.
qsStatus GetLastNode(const char* path, char* buffer, unsigned long size);
qsStatus GetLastNode(const char* path, std::string& node);

// \\server\share\rest or \\?\UNC\server\share\rest: server and share are
// copied (outputs may be null), rest points after the separator that follows
// the share, or is null when there is none.  Invalid: no UNC form, an empty
// server, a doubled separator after the server or the share, a server of
// more than 255 or a share of more than 80 characters.
qsStatus SplitUnc2(const char* path, char* server, char* share, const char*& rest);
// The same with the remainder copied (at most 256 characters; "" for none).
qsStatus SplitUnc(const char* path, char* server, char* share, char* rest);
// 3 server, share and remainder; 2 server and share; 1 server alone; 0 for
// anything else, including a remainder with two adjacent separators.
int GetUncPathContents(const char* path);
// root = \\server<separator as found>share (a long UNC prefix becomes the two
// backslashes), rest = what follows the separator after the share.  A server
// without a share is invalid here.
qsStatus SplitDfs(const char* path, char* root, char* rest);

// Exact: strcmp (strcasecmp unless caseSensitive) equal.  Child: b is a
// proper prefix of a, followed in a by a slash.  Parent: the reverse.  A null
// or empty path matches only another null or empty path.  An unknown type is
// logged ("qsPath::PathMatch: unknown match type %d") and false.
bool PathMatch(const char* a, const char* b, ePathMatchType type, bool caseSensitive);

// Appends a separator unless the path ends in one, then name (without its
// first character when that is a slash).  Separator 0 follows the path's
// format: "/" for Unix and NFS, backslash for the others; a path of format 0
// then fails untouched.  The buffer must have room: nothing is measured.
bool Append(char* path, const char* name, char separator);
bool Append(std::string& path, const char* name, char separator);

// Removes leading white space (isspace) and/or slashes.  A path made only of
// such characters is left as it is: deliberate, callers rely on it.
void StripLeading(char* path, bool spaces, bool slashes);
void StripLeading(std::string& path, bool spaces, bool slashes);
// Removes trailing white space and/or slashes, but never a slash at position
// 0 or after a ":" (/, C:\ and host:/ keep their root).
void StripTrailing(char* path, bool spaces, bool slashes);
void StripTrailing(std::string& path, bool spaces, bool slashes);
// Removes the blanks (the space character) that lead the path and that lead
// or trail any node, keeping blanks inside nodes and the root as it is
// (" /a b / c " gives "/a b/c").  False, with the path unchanged, for an
// empty or blank node before a separator ("/a//b", "/a/ /b", "//a") or a
// malformed long-path prefix.
bool TightenPath(char* path);
bool TightenPath(std::string& path);
// Unix paths: separators become "/", case kept.  NFS paths: the host is
// lower-cased, separators become "/".  Everything else, format 0 included:
// lower-cased, separators become backslashes.
void Normalize(char* path);
void Normalize(std::string& path);

// Turns `"spec" "spec" ...` into a block of NUL-terminated wildcard patterns
// ended by an empty one, in storage, with list pointing at it (null for a
// null or empty input).  A spec that is not rooted and does not begin with a
// slash or "*" gets "*" and a separator in front so that it matches at any
// depth ("/" or backslash as the spec uses; one pattern with each when it
// uses neither or both); one ending in a slash gets a trailing "*".
qsStatus SetPathSpecListString(const char* specs, const char*& list, ZBuffer& storage);

} // namespace qsPath
