#include "FileDownloadServlet.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstring>

#include "LogText.h"
#include "SocketGuard.h"
#include "ZelLog.h"

namespace {

constexpr char kName[] = "FileDownload";
constexpr char kPath[] = "/web/show.jsp";
constexpr char kMark[] = "?file=";
constexpr std::string_view kRoot = "/tmp";
constexpr std::size_t kBlockSize = 4096;

int Refuse(ServletResponse& response) {
    response.contentType = "text/plain\"";  // clients have always got it with this mark
    response.body = "<html><body>FILE NOT FOUND</body></html>";
    return ZelServlet::kDone;
}

/// Opens a regular file; a negative descriptor otherwise. Others are not even opened: to open a
/// device can set it going, and to open a pipe can wait.
int OpenRegular(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return -1;
    }
    SocketGuard file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    const bool isRegular =
        file.Get() >= 0 && fstat(file.Get(), &status) == 0 && S_ISREG(status.st_mode);
    return isRegular ? file.Release() : -1;
}

/// Number of bytes before the first zero byte, or in the whole file.
std::uint64_t TextLength(int file) {
    std::array<char, kBlockSize> block{};
    std::uint64_t length = 0;
    for (;;) {
        const ssize_t count = pread(file, block.data(), block.size(), static_cast<off_t>(length));
        if (count <= 0) {
            return length;
        }
        const auto size = static_cast<std::size_t>(count);
        const void* zero = std::memchr(block.data(), '\0', size);
        if (zero != nullptr) {
            return length +
                   static_cast<std::uint64_t>(static_cast<const char*>(zero) - block.data());
        }
        length += size;
    }
}

}  // namespace

FileDownloadServlet::FileDownloadServlet()
    : ZelServlet({kName, kPath, MatchMode::kPathPrefix, 0}) {}

int FileDownloadServlet::Service(const HttpRequest& request, ServletResponse& response) {
    const std::size_t mark = request.url->find(kMark);
    const std::string path =
        mark == std::string::npos ? "" : request.url->substr(mark + sizeof kMark - 1);
    ZEL_DEBUG("filename=%s", LogText::Of(path).c_str());
    if (!path.starts_with(kRoot)) {
        return Refuse(response);
    }
    const auto file = std::make_shared<SocketGuard>(OpenRegular(path));
    if (file->Get() < 0) {
        return Refuse(response);
    }
    response.Fulfil(request, "text/plain", "");
    response.headerLines = {"content-disposition: inline; filename=\"" + path + "\""};
    response.file = file;
    response.fileLength = TextLength(file->Get());
    return kDone;
}

std::unique_ptr<ZelServlet> FileDownloadServlet::MakeInstance() const {
    return std::make_unique<FileDownloadServlet>();
}
