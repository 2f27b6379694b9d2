#pragma once

#include <chrono>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "Box.h"
#include "HttpClient.h"
#include "Options.h"
#include "Outcome.h"
#include "Report.h"
#include "SoapClient.h"

/// A box as a command sees it: where it is reached, and what it has said of itself.
class Session {
public:
    /// Longest wait for what a box answers at once, whatever is asked of it afterwards.
    static constexpr std::chrono::seconds kInformationTimeout{10};

    /// Finds the box that the options name, and asks it who it is. Where none is named and
    /// `isPreferred` is true of a box, the others do not count.
    Outcome Begin(const Options& options, const std::function<bool(const Box&)>& isPreferred = {});
    /// Asks the box at `address` who it is; after a failure nothing has changed.
    Outcome Ask(const BoxAddress& address, std::chrono::milliseconds timeout);

    const BoxAddress& Address() const { return address_; }
    const xmlNode* Values() const;
    std::string Value(const char* name) const;
    std::string DeviceId() const { return Value("id"); }
    /// As it came.
    std::string Owner() const { return Value("sessionOwnerOrNull"); }
    bool IsReserved() const;
    /// The address that the box itself says it has, dotted; another one than it is reached at where
    /// somebody between translates, or where it is about to change.
    std::string OwnAddress() const;
    /// Address and device id, for people.
    std::string Name() const;
    /// What every answer to a program begins with.
    Report::Json Heading() const;

private:
    BoxAddress address_;
    SoapClient::Answer information_;
};
