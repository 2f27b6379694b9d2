#pragma once

#include <sys/resource.h>

#include <chrono>
#include <set>
#include <string>
#include <utility>

#include "ManagerElements.h"
#include "ZelConfig.h"

/// A software update that the manager mandates: fetched with the board's download tool, checked
/// against its MD5 sum, installed by the platform's update library. Whatever goes wrong is logged,
/// and the box keeps the software it has. A download is given up when it takes too long or would
/// fill the disk.
class SoftwareUpdate {
public:
    /// What a download may take.
    static constexpr std::chrono::minutes kDownloadTime{15};
    /// Bytes of the disk under /tmp, which the log is on, that a download leaves free.
    static constexpr rlim_t kFreeReserve = rlim_t{2} * 1024 * 1024;

    /// Most bytes of a version that is recorded as it is written.
    static constexpr std::size_t kMaxVersion = 64;

    /// What has been installed since the start: a type of image with its MD5 sum, and with its
    /// version. Either makes an update the same: a manager that does not go by what the box
    /// tells of itself would order it again and again.
    using Installed = std::set<std::pair<std::string, std::string>>;

    /// The order that stands in the answer.
    explicit SoftwareUpdate(const ManagerElements::Answer& answer);

    /// Whether the answer orders new software, which Run() may have reasons not to install.
    bool IsMandated() const { return mandated_; }

    /// Carries the order out, if there is one, and records the new version in the store. What is in
    /// `installed` is not installed again. Returns true when new software was installed, which
    /// `installed` then tells.
    [[nodiscard]] bool Run(ZelConfig& config, Installed& installed) const;

private:
    bool HasUsableAddress() const;
    [[nodiscard]] bool Fetch() const;
    [[nodiscard]] bool Install() const;
    void RemoveFile() const;
    void RecordVersion(ZelConfig& config) const;

    bool present_;
    bool mandated_;
    bool application_;
    std::string type_;
    std::string protocol_;
    std::string host_;
    std::string url_;
    std::string digest_;
    std::string fileName_;
    std::string version_;
};
