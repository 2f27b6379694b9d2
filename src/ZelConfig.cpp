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
constexpr std::size_t kUsualFile = std::size_t{16} * 1024;

const std::string kFile = ZelConfig::kConfigurationFile;
const std::string kNewFile = kFile + ".new";
const std::string kOldFile = kFile + ".old";

void AddLine(std::string& text, const std::string& key, const std::string& value) {
    const std::size_t start = text.size();
    text += key;
    text += '=';
    text += value;
    text.resize(std::min(text.size(), start + kLineSize - 1));
    for (std::size_t end = start; (end = text.find('\n', end)) != std::string::npos;) {
        text[end] = ' ';
    }
    text += '\n';
}

}  // namespace

ZelConfig::Named* ZelConfig::Find(std::string_view key) const {
    const auto found = index_.find(key);
    return found == index_.end() ? nullptr : found->second;
}

/// The entry, and whether it is new.
std::pair<ZelConfig::Entry&, bool> ZelConfig::FindOrMake(const std::string& key) {
    const auto [position, isNew] = entries_.try_emplace(key);
    index_.try_emplace(position->first, &*position);
    return {position->second, isNew};
}

bool ZelConfig::Get(std::string_view key, std::string& out, LiveSources& sources) const {
    out.clear();
    const std::string* name = nullptr;
    std::shared_ptr<SourceFile> source;
    std::shared_ptr<const SharingProvider> provider;
    {
        const std::lock_guard lock(mutex_);
        const Named* found = Find(key);
        if (found == nullptr) {
            return false;
        }
        const Entry& entry = found->second;
        name = &found->first;
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
    return provider ? (*provider)(*name, out, sources) : source && source->ReadFirstLine(out);
}

bool ZelConfig::Get(std::string_view key, std::string& out) const {
    LiveSources sources;
    return Get(key, out, sources);
}

std::string ZelConfig::Get(std::string_view key) const {
    LiveSources sources;
    return Get(key, sources);
}

std::string ZelConfig::Get(std::string_view key, LiveSources& sources) const {
    std::string value;
    Get(key, value, sources);
    return value;
}

bool ZelConfig::Set(const std::string& key, const std::string& value, Kind kind) {
    const std::lock_guard lock(mutex_);
    Entry& entry = FindOrMake(key).first;
    entry.kind = kind;
    switch (kind) {
        case Kind::kFile:
            entry.source = std::make_shared<SourceFile>(value);
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
    if (!provider) {
        return Register(key, SharingProvider());
    }
    return Register(
        key, [ask = std::move(provider)](const std::string& name, std::string& out,
                                         LiveSources& /*sources*/) { return ask(name, out); });
}

bool ZelConfig::Register(const std::string& key, SharingProvider provider) {
    auto shared = provider ? std::make_shared<const SharingProvider>(std::move(provider)) : nullptr;
    const std::lock_guard lock(mutex_);
    auto [entry, isNew] = FindOrMake(key);
    if (isNew) {
        entry.kind = Kind::kComputed;
    }
    entry.provider = std::move(shared);
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
    text.reserve(kUsualFile);
    {
        const std::lock_guard lock(mutex_);
        for (const auto& [key, entry] : entries_) {
            if (entry.kind == Kind::kPersistent) {
                AddLine(text, key, entry.value);
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
