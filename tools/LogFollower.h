#pragma once

#include <functional>
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
