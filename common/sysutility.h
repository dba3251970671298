// Process identity, clock, files and file names. Paths are byte strings; "/" separates their names.
//
// Nothing here keeps state; any thread may call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace sysutility {

// Id of the calling process.
int GetCurrentPid();

// Milliseconds of the wall clock since 1970-01-01 00:00 UTC. It jumps when the system time is set;
// only differences of two readings mean something.
std::int64_t GetTickCounts();

// Directory of the running executable, as the system was given it: neither absolute nor resolved.
// Empty when the path has no "/". With `bTrailingDelimiter` the text ends in "/".
std::string GetCurrentPath(bool bTrailingDelimiter);

// Directory of the running executable, absolute and without links, also when it was started through
// a link or a relative path. Throws std::filesystem::filesystem_error when the executable is not
// there any more. To be called before the process changes its working directory.
std::string GetProgramDirectory();

// "cannot read list: No such file or directory": what failed, and the system's text for the error
// number.
std::string SystemFault(const std::string& what, int error);

// ---- Files.

// Whether a regular file of that path exists; false also after any error. The empty path ends the
// process with the standard assertion.
bool FileExists(std::string strFile);

// Whether a directory of that path exists. One trailing "/" is ignored; "/" alone, empty then, is
// no directory.
bool DirectoryExists(std::string strPath);

// Makes the last component of the path, with mode 0755. Returns false when the directory was made;
// true when not, also when there was something of that name before.
bool CreateDir(std::string strPath);

// Makes, or overwrites, a file of FileSize zero bytes and the byte 0xFF behind them: FileSize + 1
// bytes. FileSize is below 2^31. Returns false for a larger one, with the file as it was, and when
// the file cannot be opened or written.
bool CreateNewFileWithSize(std::string strPath, std::uint64_t FileSize);

// ---- Memory.

// Copies `Count` bytes and appends a zero byte. DestSize is the size of `Dest`, more than
// Count; the two do not overlap. Returns `Dest`. A null pointer, or a Count that leaves no room for
// the zero, ends the process with the standard assertion.
void* memcopy(void* Dest, const void* Src, std::size_t DestSize, std::size_t Count);

// ---- File names.

// The characters that no file name may hold.
inline const std::string InvalidFileNameChars = "\\/:*?\"<>|";

// Whether the name, trimmed, can be used as it is: it is not empty, does not begin with "." or ":",
// and holds no invalid character.
bool CheckFileName(std::string szFileName);

// The name, trimmed, without its invalid characters. It may be empty, and may begin with ".".
std::string MakeFileName(std::string szFileName);

// The path with a "/" at its end; the empty one gives "/".
std::string IncludeTrailingPathDelimiter(std::string strPath);

// The path without one "/" at its end, if it has any.
std::string ExcludeTrailingPathDelimiter(std::string strPath);

// The text after the last "/" of the trimmed address, query included; empty without a "/".
std::string GetFileNameForUrl(std::string strUrl);

}  // namespace sysutility
