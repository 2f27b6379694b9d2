// The least that a file costs which survives a power cut: its bytes written beside it, synced,
// given its name, and the name synced.
//
// save-peer FILE COUNT     prints how long it takes
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "BenchSupport.h"
#include "Descriptors.h"
#include "SaveTime.h"
#include "SocketGuard.h"

namespace {

bool Save(const std::string& path, const std::string& text) {
    const std::string newPath = path + ".peer";
    SocketGuard file(open(newPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!Descriptors::WriteAll(file.Get(), text) || fsync(file.Get()) != 0) {
        return false;
    }
    file.Reset();
    const std::string folder = path.substr(0, path.rfind('/') + 1);
    const SocketGuard directory(
        open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return std::rename(newPath.c_str(), path.c_str()) == 0 && fsync(directory.Get()) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        BenchSupport::GiveUp("usage: save-peer FILE COUNT");
    }
    const std::string path = argv[1];
    const std::string text = BenchSupport::ReadFile(path);
    const int count = BenchSupport::Argument<int>(argv[2], "number of saves");
    if (!SaveTime::Print(count, [&] { return Save(path, text); })) {
        BenchSupport::GiveUp(path + " cannot be saved");
    }
}
