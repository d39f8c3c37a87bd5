/*
 * Files that are written whole: who reads one finds the old content or the new, never a part.
 */
#ifndef HOST_BASE_WHOLE_FILE_H
#define HOST_BASE_WHOLE_FILE_H

#include <string>

namespace keel {

/* Writes the content to "PATH.new", mode 0600, and gives that file the name PATH. What stood under either name is
 * replaced; where it was a link, what that leads to is left alone. False with the reason in *error; then PATH is as it
 * was. */
bool write_whole_file(const std::string &path, const std::string &content, std::string *error);

} // namespace keel

#endif
