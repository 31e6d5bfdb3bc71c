#include "replay_directory.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "durable_file.h"
#include "key_file_walker.h"
#include "key_file_writer.h"
#include "recovery_file_writer.h"

namespace {

bool Copy(std::string const& from, std::string const& to, long bytes) {
    sutl_Descriptor const source = sutl_OpenFile(from.c_str(), O_RDONLY | O_CLOEXEC);
    RecoveryFileWriter copy;
    long copied = 0;
    if (!source.IsOpen() || !copy.Create(to) || !copy.CopyFrom(source, 0, bytes, copied) || !copy.Finish())
        return false;
    errno = EIO;  // the file has become shorter
    return copied == bytes;
}

bool CannotLink(int error) { return error == EPERM || error == EXDEV || error == EMLINK || error == EOPNOTSUPP; }

bool TakeKeys(suts_tsspec const& spec, std::string const& keyFile, KeyFileWriter& keys) {
    KeyFileWalker walker(spec, keyFile);
    sutl_Descriptor const from = sutl_OpenFile(keyFile.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    KeyFileWalker::Key key;
    while (walker.Next(key) == KeyFileWalker::KEY && !walker.IsCut()) {
        if (!keys.Add(key.hash, key.start, key.bytes, from, key.textOffset)) return false;
    }
    return true;
}

}  // namespace

bool MakeReplayDirectory(suts_tsspec const& spec, std::string const& path,
                         std::vector<GenerationLog> const& generations, std::string& problem) {
    auto const fail = [&problem](std::string const& what) {
        problem = what + ": " + strerror(errno);
        return false;
    };
    if (mkdir(path.c_str(), DIRECTORY_MODE) != 0) return fail(path);
    KeyFileWriter keys(spec, path + "/KeyFile");
    if (!keys.IsOpen()) return fail(path + "/KeyFile");
    unsigned number = 0;
    for (GenerationLog const& generation : generations) {
        if (!TakeKeys(spec, generation.directory + "/KeyFile", keys)) return fail(path + "/KeyFile");
        for (LogPiece const& piece : generation.pieces) {
            if (piece.wholeBytes == 0) continue;
            std::string const target = fmt::format("{}/F{}", path, ++number);
            // The server itself passes over a tear that nothing follows.
            bool const goesWhole = piece.wholeBytes == piece.bytes || &generation == &generations.back();
            if (goesWhole && link(piece.file.path.c_str(), target.c_str()) == 0) continue;
            if (goesWhole && !CannotLink(errno)) return fail(target);
            if (!Copy(piece.file.path, target, piece.wholeBytes)) return fail(target);
        }
    }
    return keys.Finish() || fail(path + "/KeyFile");
}
