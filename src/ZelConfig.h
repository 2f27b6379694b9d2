#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "HeldMutex.h"
#include "LiveSources.h"
#include "SourceFile.h"

/// The agent's key/value store: persistent settings and live attributes behind one get and set.
/// Thread-safe; no provider and no file is read while its lock is held.
class ZelConfig {
public:
    /// How an entry obtains its value.
    enum class Kind : std::int32_t {
        kFixed = 0,      ///< the stored value
        kFile = 1,       ///< the first line of a file, read at every get
        kComputed = 2,   ///< what the provider answers, asked at every get
        kPersistent = 3  ///< the stored value, written to the configuration file by Save()
    };

    /// Computes the value of `key`. Returns false when it is not to be had now.
    using Provider = std::function<bool(const std::string& key, std::string& out)>;
    /// The same for a value that others are read with.
    using SharingProvider =
        std::function<bool(const std::string& key, std::string& out, LiveSources& sources)>;

    static constexpr char kConfigurationFile[] = "/config/agent.configuration";

    /// An empty store. Nothing is read from disk.
    ZelConfig() = default;
    ZelConfig(const ZelConfig&) = delete;
    ZelConfig& operator=(const ZelConfig&) = delete;

    /// Sets `out` to the value of `key`; false and an empty `out` when the key is unknown or its
    /// value is not to be had.
    bool Get(std::string_view key, std::string& out) const;
    /// The value of `key`, empty when there is none.
    std::string Get(std::string_view key) const;

    /// The same for one of several values of one answer, which share `sources`.
    bool Get(std::string_view key, std::string& out, LiveSources& sources) const;
    std::string Get(std::string_view key, LiveSources& sources) const;

    /// Stores `value` (for kFile: the path of the source) and gives the entry that kind. Kinds
    /// other than kFixed, kFile and kPersistent store nothing and return false, but change the
    /// kind.
    [[nodiscard]] bool Set(const std::string& key, const std::string& value, Kind kind);
    /// The same with kFixed, and with kPersistent, which cannot fail.
    void SetFixed(const std::string& key, const std::string& value);
    void SetPersistent(const std::string& key, const std::string& value);

    /// Gives `key` a provider. A new key becomes computed; an existing one keeps its kind. Returns
    /// true.
    bool Register(const std::string& key, Provider provider);
    bool Register(const std::string& key, SharingProvider provider);

    /// Reads the configuration file, or the previous one when it is missing, or else writes and
    /// reads the built-in defaults. False when none can be read or a line could not be stored. Of
    /// the lines "#comment", "tavo.color=white" and "x" the second one is a setting.
    [[nodiscard]] bool Load();

    /// Writes all persistent entries to the configuration file, replacing it as a whole; the
    /// previous file is kept with the suffix ".old". False when the new file could not be written
    /// completely or not be given its name; the old one then has it. A line break in a key or value
    /// is written as a blank, and a line is cut at the 8191 bytes that Load() reads, so that one
    /// entry never becomes two. The file holds passwords and is its owner's alone.
    [[nodiscard]] bool Save() const;

    /// Replaces the configuration file by the built-in default text.
    [[nodiscard]] bool WriteDefaults() const;

private:
    struct Entry {
        std::string value;
        std::shared_ptr<SourceFile> source;
        Kind kind = Kind::kFixed;
        std::shared_ptr<const SharingProvider> provider;
    };

    using Named = std::pair<const std::string, Entry>;

    Named* Find(std::string_view key) const;
    std::pair<Entry&, bool> FindOrMake(const std::string& key);

    mutable HeldMutex mutex_;
    mutable HeldMutex saveMutex_;
    std::map<std::string, Entry> entries_;  // in the order of the file; none is ever taken away
    std::unordered_map<std::string_view, Named*> index_;
};
