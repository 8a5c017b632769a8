// Files the program writes are written under a temporary name beside the target and renamed
// over it only when complete, so a failed or interrupted write never leaves half a file
// under the name the user asked for.
#pragma once
#include <functional>
#include <string>

namespace orvacli {

// Throws std::runtime_error "<path>: no such folder" when the folder that would hold `path`
// does not exist.
void checkOutputFolder(const std::string& path);

// The name a write to `path` goes to first: "dir/.name.part.ext", keeping the extension for
// writers that choose their format by it. For a target that is neither a regular file nor
// missing (a device such as /dev/null) it is a file of that name in the temporary folder,
// since writers may read back what they wrote.
std::string partName(const std::string& path);

// Moves a finished `part` over `path` (for a device: copies it there and removes it). Throws
// std::runtime_error naming `path` when that fails.
void commitPart(const std::string& part, const std::string& path);

// Runs write(part) and commits it; on any failure removes the part and throws
// std::runtime_error "<path>: <what went wrong>". A short write of the engine (a size_t
// count) is reported as the device being full or failing.
void writeThroughPart(const std::string& path, const std::function<void(const std::string&)>& write);

}  // namespace orvacli
