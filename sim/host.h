// The board's host and its clients.
//
// One process per board folder hosts the board's device models: it runs the
// attachers, and its models serve every process that attaches the folder.
// It listens on ROOT/.board/host.sock and holds ROOT/.board/host.lock for its
// life, so two hosts never run for one folder. The other processes are its
// clients: they reach the models through the socket (services, commands,
// mounts, opens of modelled nodes, and a request to take in the writes of
// watched files they made), and share everything else through the folder.
//
// The host follows the folder with inotify: a watched file written by anyone
// (a client, a plain shell, another program) reaches its watchers, and every
// record of the GPIO journal reaches the line watchers with its time. Before
// it answers a client, the host takes in everything written before, so a
// client's earlier writes are seen before its request.
#ifndef VEXA_SIM_HOST_H
#define VEXA_SIM_HOST_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "sim/board.h"
#include "sim/journal.h"

namespace vexa::sim {

// Another host runs for the folder.
struct HostBusy : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class Host {
public:
    // Takes the folder's host lock; throws HostBusy when another host has it.
    explicit Host(Board::State &s);
    ~Host();
    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;

    // Listens for clients and follows the folder (after the attachers ran).
    void start();
    pid_t pid() const { return pid_; }

    // Takes in the writes of watched files and the GPIO records made so far
    // and hands them to their watchers.
    void drain();
    // The same for the GPIO records alone (after a drive of this process).
    void drain_lines();
    // Follows a file for Board::watch_file.
    void watch(const std::string &board_path);

    // Nanoseconds since the last client left or asked something (0 while a
    // client is connected).
    uint64_t idle_ns() const;
    // The folder has gone, or a client asked the host to leave.
    bool should_leave() const;

private:
    struct Connection;
    void accept_loop();
    void follow_loop();
    void serve_connection(std::shared_ptr<Connection> connection);
    std::string handle(Connection &connection, const std::string &request, int *fd_out);
    void housekeeping();
    bool deliver_file_events(const char *buf, ssize_t len);
    bool deliver_gpio();

    Board::State &s_;
    pid_t pid_;
    int lock_fd_ = -1;
    int listen_fd_ = -1;
    int notify_fd_ = -1;
    int gpio_wd_ = -1;
    int wake_[2] = {-1, -1};
    ino_t root_ino_ = 0;
    std::string socket_path_;
    Journal gpio_follow_;

    std::mutex drain_mu_;
    std::map<int, std::string> dir_of_wd_; // board path of each watched folder

    mutable std::mutex conn_mu_;
    std::vector<std::shared_ptr<Connection>> connections_;
    std::atomic<uint64_t> last_activity_ns_{0};
    std::atomic<int> clients_{0};
    std::atomic<bool> stop_{false};
    std::atomic<bool> quit_{false};
    std::atomic<bool> gone_{false};
    std::thread accept_thread_;
    std::thread follow_thread_;
    uint64_t next_housekeeping_ns_ = 0;
};

// A client's link to the host of its board.
class HostLink {
public:
    // Connects to the folder's host, starting one when none runs; throws
    // std::runtime_error when no host can be had.
    explicit HostLink(Board::State &s);
    ~HostLink();
    HostLink(const HostLink &) = delete;
    HostLink &operator=(const HostLink &) = delete;

    pid_t pid() const { return pid_; }
    pid_t host_pid();
    // Counts connections across the process: a descriptor opened through an
    // older one is void.
    uint64_t generation() const;

    bool offers_model(const std::string &board_path);
    bool offers_command(const std::string &program);
    bool offers_mount(const std::string &source);
    bool watches(const std::string &board_path);

    // One request and its reply (and a descriptor beside it). A host that has
    // gone is started again once and the request repeated; false when that
    // fails too (errno ENODEV).
    bool request(const std::string &message, std::string *reply, int *fd = nullptr);

    // A model's node opened through the host: the descriptor, with *proxy set
    // to the model that forwards the calls on it.
    int open(const std::string &board_path, int flags, mode_t mode,
             std::shared_ptr<DeviceModel> *proxy);

private:
    // Connects (starting a host when none runs) and says hello; the reply
    // is read by settle_locked, when the link is first used.
    bool connect_locked();
    bool settle_locked();
    bool hello_locked();

    Board::State &s_;
    pid_t pid_;
    mutable std::mutex mu_;
    int sock_ = -1;
    pid_t host_pid_ = 0;
    bool hello_pending_ = false;
    uint64_t generation_ = 0;
    std::set<std::string> models_, commands_, mounts_, watched_;
};

// The socket's path for bind/connect: ROOT/.board/host.sock, or, when that is
// longer than sun_path allows, the same file reached through dir_fd (an open
// descriptor of ROOT/.board) as /proc/self/fd/N/host.sock.
std::string host_socket_address(const std::string &root, int dir_fd);

// Asks the host of root, if one runs, to leave.
void request_host_quit(const std::string &root);

// Where the host program is: $VEXA_BOARD_HOST, else vexaboard-host beside
// the library (or in ../libexec), else the build tree's.
std::string host_program();

// This process hosts s (not a child forked from the host).
Host *host_here(Board::State &s);
// The models, handlers and watchers registered in s are this process's own:
// false in a child forked from the host, whose copies are the host's (the
// child reaches the host's through its link).
bool own_registry(Board::State &s);
// This process is a client of s's host: the link (made anew in a child
// forked from the host or from a client); null when this process hosts s.
HostLink *link_here(Board::State &s);

} // namespace vexa::sim

#endif
