#include "ZelConfig.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include "DefaultConfiguration.h"
#include "DurableFile.h"
#include "File.h"

namespace {

constexpr std::size_t kLineSize = 8192;

const std::string kFile = ZelConfig::kConfigurationFile;
const std::string kNewFile = kFile + ".new";
const std::string kOldFile = kFile + ".old";

std::string Line(const std::string& key, const std::string& value) {
    std::string line = key + "=" + value;
    std::replace(line.begin(), line.end(), '\n', ' ');
    line.resize(std::min(line.size(), kLineSize - 1));
    return line + "\n";
}

}  // namespace

bool ReadFirstLine(const std::string& path, std::string& out) {
    out.clear();
    if (path.empty()) {
        return false;
    }
    const File file = OpenToRead(path);
    if (!file) {
        return false;
    }
    std::array<char, kLineSize> line{};
    if (std::fscanf(file.get(), "%8190[^\n]", line.data()) == 0) {
        return false;
    }
    out = line.data();
    return true;
}

bool ZelConfig::Get(const std::string& key, std::string& out) const {
    out.clear();
    std::string source;
    Provider provider;
    {
        const std::lock_guard lock(mutex_);
        const auto found = entries_.find(key);
        if (found == entries_.end()) {
            return false;
        }
        const Entry& entry = found->second;
        switch (entry.kind) {
            case Kind::kFile:
                source = entry.source;
                break;
            case Kind::kComputed:
                provider = entry.provider;
                break;
            default:
                out = entry.value;
                return true;
        }
    }
    return provider ? provider(key, out) : ReadFirstLine(source, out);
}

std::string ZelConfig::Get(const std::string& key) const {
    std::string value;
    Get(key, value);
    return value;
}

bool ZelConfig::Set(const std::string& key, const std::string& value, Kind kind) {
    const std::lock_guard lock(mutex_);
    Entry& entry = entries_[key];
    entry.kind = kind;
    switch (kind) {
        case Kind::kFile:
            entry.source = value;
            return true;
        case Kind::kFixed:
        case Kind::kPersistent:
            entry.value = value;
            return true;
        default:
            return false;
    }
}

void ZelConfig::SetFixed(const std::string& key, const std::string& value) {
    static_cast<void>(Set(key, value, Kind::kFixed));  // a kind that is stored
}

void ZelConfig::SetPersistent(const std::string& key, const std::string& value) {
    static_cast<void>(Set(key, value, Kind::kPersistent));  // a kind that is stored
}

bool ZelConfig::Register(const std::string& key, Provider provider) {
    const std::lock_guard lock(mutex_);
    const auto [position, isNew] = entries_.try_emplace(key);
    if (isNew) {
        position->second.kind = Kind::kComputed;
    }
    position->second.provider = std::move(provider);
    return true;
}

bool ZelConfig::Load() {
    File file = OpenToRead(kFile);
    if (!file) {
        file = OpenToRead(kOldFile);
    }
    if (!file) {
        static_cast<void>(WriteDefaults());  // there, but perhaps not on the disk yet
        file = OpenToRead(kFile);
    }
    if (!file) {
        return false;
    }
    bool result = true;
    std::array<char, kLineSize> line{};
    for (;;) {
        const int fields = std::fscanf(file.get(), "%8191[^\n]\n", line.data());
        if (fields == EOF) {
            return result;
        }
        if (fields == 0) {
            // Only the very first line can be blank here: behind a line the pattern skips all
            // white space.
            std::fgetc(file.get());
            continue;
        }
        const std::string_view text(line.data());
        const std::size_t cut = text.find('=');
        if (text.starts_with('#') || cut == std::string_view::npos) {
            continue;
        }
        result &= Set(std::string(text.substr(0, cut)), std::string(text.substr(cut + 1)),
                      Kind::kPersistent);
    }
}

bool ZelConfig::Save() const {
    const std::lock_guard saving(saveMutex_);
    std::string text;
    {
        const std::lock_guard lock(mutex_);
        for (const auto& [key, entry] : entries_) {
            if (entry.kind == Kind::kPersistent) {
                text += Line(key, entry.value);
            }
        }
    }
    if (!DurableFile::Write(kNewFile, text, DurableFile::kSecret)) {
        return false;
    }
    const bool isKept = std::rename(kFile.c_str(), kOldFile.c_str()) == 0;
    if (std::rename(kNewFile.c_str(), kFile.c_str()) != 0) {
        if (isKept) {
            // Where that fails, too, Load() takes the old one.
            static_cast<void>(std::rename(kOldFile.c_str(), kFile.c_str()));
        }
        std::remove(kNewFile.c_str());
        return false;
    }
    return DurableFile::SyncDirectoryOf(kFile);
}

bool ZelConfig::WriteDefaults() const {
    const std::lock_guard saving(saveMutex_);
    return DurableFile::Replace(kFile, kDefaultConfiguration, DurableFile::kSecret);
}
