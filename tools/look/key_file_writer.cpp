#include "key_file_writer.h"

#include <cerrno>

KeyFileWriter::KeyFileWriter(suts_tsspec const& spec, std::string const& path)
    : isText_(spec.Type(0) == SUTS_STRING64) {
    static_cast<void>(out_.Create(path));  // shows in IsOpen
}

bool KeyFileWriter::Add(KeyHash const& hash, std::string_view start, long bytes, sutl_Descriptor const& from,
                        long offset) {
    constexpr char NUL = '\0';
    if (!seen_.insert(hash).second) return true;
    auto const length = static_cast<int>(bytes);
    if (isText_ && !out_.Append({reinterpret_cast<char const*>(&length), sizeof length})) return false;
    if (start.size() == static_cast<std::size_t>(bytes)) return out_.Append(start);
    long copied = 0;
    if (!out_.CopyFrom(from, offset, bytes - 1, copied) || !out_.Append({&NUL, 1})) return false;
    errno = EIO;  // the file has become shorter
    return copied == bytes - 1;
}
