#pragma once

#include <netinet/in.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

/// The places of a server's connections, shared with their threads, which may outlive the server.
/// One address holds at most half of them, and where none is left a connection that nobody would
/// miss gives way, so that no peer locks others out. Thread-safe.
class ConnectionTable {
public:
    static constexpr std::size_t kMaxConnections = 200;
    /// Most places of one peer address.
    static constexpr std::size_t kMaxOfAddress = kMaxConnections / 2;
    /// Most threads in all, those included that have given way and are about to end; one address
    /// has at most half of these, too.
    static constexpr std::size_t kMaxThreads = 2 * kMaxConnections;
    /// How long a response may be under way before its connection can give way to any other.
    static constexpr std::chrono::seconds kSendGrace{5};

    /// What a connection is doing.
    enum class Phase {
        kIdle,       ///< waits for another request
        kReceiving,  ///< waits for the first one, or reads one
        kServing,    ///< has it served
        kSending     ///< sends the response
    };

    /// The place of one connection, from Take() until it is destroyed. The socket must live longer.
    class Place {
    public:
        Place(std::shared_ptr<ConnectionTable> table, int socket, in_addr peer)
            : table_(std::move(table)), socket_(socket), peer_(peer.s_addr) {}
        ~Place() { table_->Leave(*this); }
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;

        /// Enters the table as a receiving connection. When all places, or those of this address,
        /// are taken, the one (of all, or of this address) gives way that has been idle longest;
        /// else one whose client has hung up while its request is served; else one that is
        /// receiving; else one that has been sending beyond kSendGrace; else one that is sending
        /// to an address with more places: of the address that has most, that which has been at it
        /// longest. False when there is none, and when the table is closed.
        [[nodiscard]] bool Take() { return table_->Enter(*this); }
        /// False when the connection has given way: its thread is to wait for nothing any more.
        bool SetPhase(Phase phase);

    private:
        friend class ConnectionTable;
        const std::shared_ptr<ConnectionTable> table_;
        const int socket_;
        const in_addr_t peer_;
        std::atomic<Phase> phase_ = Phase::kReceiving;
        std::chrono::steady_clock::time_point since_ = std::chrono::steady_clock::now();
        bool counts_ = true;
    };

    ConnectionTable() { places_.reserve(kMaxThreads); }

    /// Lets nobody in any more, makes all connections end once they have answered what they are
    /// serving, and waits for it. False when some are left after `timeout`.
    [[nodiscard]] bool Close(std::chrono::milliseconds timeout);

private:
    bool Enter(Place& place);
    void Leave(const Place& place);
    template <typename Filter>
    bool HasRoom(const Place& comer, std::size_t places, Filter filter);
    static int YieldRank(const Place& place, std::chrono::steady_clock::time_point now);

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Place*> places_;
    bool closed_ = false;
};
