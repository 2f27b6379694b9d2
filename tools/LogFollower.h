#pragma once

#include <functional>
#include <set>
#include <string>

/// Tells what is new in a log that is downloaded again and again, as a whole each time.
class LogFollower {
public:
    /// The whole lines of `current` that no call has returned yet. `older` gets the file that the
    /// log was renamed to when it became full (empty when there is none); it is asked when
    /// `current` does not begin with what was there before, for lines that came before the
    /// renaming.
    std::string Next(const std::string& current, const std::function<std::string()>& older);

private:
    std::string seen_;
};

/// Leaves out of a log what downloads of the log itself make in it: whoever follows it would follow
/// himself.
class DownloadFilter {
public:
    /// The other ones of these whole lines, which come behind those of the last call. One that
    /// tells of a connection may come with the next call, when it is known what for.
    std::string Next(const std::string& added);

private:
    /// Ids of the threads of the box that serve downloads of the log.
    std::set<std::string> threads_;
    std::string held_;
};
