// vexaboard-view: serves the live page of a virtual board (vexactl board
// view runs it). One follower of the board folder feeds every page; pages
// get the board's state when they connect and each change as a server-sent
// event; what a page asks of the board comes as a POST that carries the
// run's token.
//
//   vexaboard-view --board DIR [--port N] [--listen ADDR] [--json]
//
// The first line of standard output is the page's address with its token.
#include <signal.h>
#include <sys/socket.h>
#include <sys/random.h>
#include <unistd.h>

#include <httplib.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "sim/board.h"
#include "sim/serial/serial_line.h"
#include "tools/vexactl/controls.h"
#include "tools/view/follower.h"
#include "tools/view/hub.h"
#include "tools/view/knobs.h"
#include "tools/view/page.h"
#include "tools/view/quiet_log.h"
#include "tools/view/reader.h"
#include "tools/view/request.h"
#include "vexasdk/product_config.h"

namespace {

using vexa::view::Hub;

// The library's product record is process state: the follower's reads and
// the requests' look-ups take turns.
std::mutex g_library;

// Threads of the server: a few for pages and requests besides the pages
// that follow the board.
constexpr size_t kThreads = Hub::kMaxPages + 4;
// Full reads of the board come at most this often; the log and the lines'
// output follow every batch.
constexpr auto kMinGap = std::chrono::milliseconds(100);

std::string new_token()
{
    unsigned char bytes[16];
    if (::getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes))
        throw std::runtime_error("no random bytes for the page's token");
    static const char digits[] = "0123456789abcdef";
    std::string token;
    for (unsigned char b : bytes) {
        token += digits[b >> 4];
        token += digits[b & 15];
    }
    return token;
}

bool same_secret(const std::string &a, const std::string &b)
{
    if (a.size() != b.size())
        return false;
    unsigned char diff = 0;
    for (size_t i = 0; i < a.size(); ++i)
        diff |= static_cast<unsigned char>(a[i] ^ b[i]);
    return diff == 0;
}

void answer_error(httplib::Response &res, int status, const std::string &message)
{
    std::string text = "{\"error\":\"";
    for (char c : message)
        text += c == '"' || c == '\\' ? std::string("\\") + c : std::string(1, c);
    res.status = status;
    res.set_content(text + "\"}\n", "application/json");
}

struct Options {
    std::string board;
    int port = 0;
    std::string listen = "127.0.0.1";
    bool json = false;
};

bool parse_options(int argc, char **argv, Options *options)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--json") {
            options->json = true;
            continue;
        }
        if (i + 1 >= argc)
            return false;
        if (arg == "--board")
            options->board = argv[++i];
        else if (arg == "--port")
            options->port = std::atoi(argv[++i]);
        else if (arg == "--listen")
            options->listen = argv[++i];
        else
            return false;
    }
    return !options->board.empty() && options->port >= 0 && options->port <= 65535;
}

bool loopback(const std::string &address)
{
    return address.rfind("127.", 0) == 0 || address == "::1" || address == "localhost";
}

// The host part of a URL for an address ("[::1]", "127.0.0.1").
std::string url_host(const std::string &address)
{
    if (address == "0.0.0.0")
        return "127.0.0.1";
    if (address == "::")
        return "[::1]";
    return address.find(':') != std::string::npos ? "[" + address + "]" : address;
}

class View {
public:
    View(vexa::sim::Board &board, std::string token) : board_(board), token_(std::move(token)), reader_(board) {}

    void start()
    {
        {
            std::lock_guard<std::mutex> lock(g_library);
            vexa::view::QuietLog quiet;
            for (auto &[name, json] : reader_.sections())
                hub_.section(name, json);
            hub_.log(reader_.new_log(Hub::kLogKept));
            for (auto &o : reader_.new_output())
                hub_.output(o.path, o.bytes, o.reset);
            last_full_ = std::chrono::steady_clock::now();
        }
        follower_ = std::make_unique<vexa::view::Follower>(
            board_.root(), [this](const std::set<std::string> &changed) { refresh(changed); });
    }

    void stop()
    {
        hub_.stop();
        follower_.reset();
    }

    Hub &hub() { return hub_; }
    const std::string &token() const { return token_; }

    // A request's action on the board; the answer's status and text.
    void act(const vexa::view::Request &request, httplib::Response &res)
    {
        using Kind = vexa::view::Request::Kind;
        if (request.kind == Kind::line) {
            int id = -1;
            {
                std::lock_guard<std::mutex> lock(g_library);
                const vexactl::Control *found = nullptr;
                for (const auto &control : vexactl::controls())
                    if (request.name == control.name)
                        found = &control;
                if (!found || !bi_product)
                    return answer_error(res, 404, "no line is named " + request.name);
                if (found->kind != vexactl::Kind::input)
                    return answer_error(res, 409, request.name + " is driven by the board; only inputs take a level");
                id = vexactl::line_id(*found);
            }
            if (id <= 0)
                return answer_error(res, 409, request.name + " has no line in the product INI");
            board_.set_line(id, request.level);
        } else if (request.kind == Kind::serial) {
            bool plain = false;
            for (const auto &line : vexa::sim::serial_line_list(board_))
                plain |= line.board_path == request.name && !line.mcu;
            if (!plain)
                return answer_error(res, 404, "no plain serial line is " + request.name);
            if (!vexa::sim::serial_send(board_, request.name, request.value, request.from_board))
                return answer_error(res, 503, "the board's host did not take the bytes");
        } else {
            std::string error;
            const int status = vexa::view::set_knob(board_, request.name, request.value, &error);
            if (status != 0)
                return answer_error(res, status, error);
        }
        res.status = 200;
        res.set_content("{\"ok\":true}\n", "application/json");
    }

private:
    void refresh(const std::set<std::string> &changed)
    {
        bool all = false, log = false, output = false, config = false;
        for (const std::string &path : changed) {
            if (path == "*") {
                all = log = output = config = true;
            } else if (path == "/.board/log" || path.rfind("/.board/log.", 0) == 0) {
                log = true;
            } else if (path.rfind("/.board/serial/", 0) == 0) {
                output = true;
            } else if (path == "/.board/commands" || path.rfind("/.board/host.", 0) == 0 ||
                       path == "/.board/lock") {
                // What the library's own reads leave behind: no part of the
                // board's state.
            } else {
                all = true;
                config |= path.rfind("/vendor/etc/", 0) == 0;
            }
        }
        if (all) {
            const auto since = std::chrono::steady_clock::now() - last_full_;
            if (since < kMinGap)
                std::this_thread::sleep_for(kMinGap - since);
        }
        std::lock_guard<std::mutex> lock(g_library);
        vexa::view::QuietLog quiet;
        if (config)
            reader_.reload_config();
        if (all) {
            for (auto &[name, json] : reader_.sections())
                hub_.section(name, json);
            last_full_ = std::chrono::steady_clock::now();
        }
        if (log || all)
            hub_.log(reader_.new_log(Hub::kLogKept));
        if (output || all)
            for (auto &o : reader_.new_output())
                hub_.output(o.path, o.bytes, o.reset);
    }

    vexa::sim::Board &board_;
    std::string token_;
    vexa::view::Reader reader_;
    Hub hub_;
    std::unique_ptr<vexa::view::Follower> follower_;
    std::chrono::steady_clock::time_point last_full_;
};

// Security headers of every answer: the page loads nothing from anywhere
// but this server, and its address (with the token) is not passed on.
const httplib::Headers kHeaders = {
    {"Content-Security-Policy",
     "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self' data:; "
     "base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"Referrer-Policy", "no-referrer"},
    {"Cache-Control", "no-store"},
};

void serve(View &view, httplib::Server &server, int port, const std::string &listen)
{
    const std::string token = view.token();
    // The names a page may reach the server by: a page of another site that
    // has its name resolve to this address (DNS rebinding) is refused.
    std::set<std::string> hosts;
    for (const std::string &name : {url_host(listen), std::string("127.0.0.1"), std::string("localhost"),
                                    std::string("[::1]")})
        hosts.insert(name + ":" + std::to_string(port));

    server.new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
    server.set_default_headers(kHeaders);
    server.set_payload_max_length(vexa::view::kMaxBody);
    server.set_keep_alive_max_count(1);
    server.set_read_timeout(5, 0);
    server.set_write_timeout(5, 0);
    server.set_pre_routing_handler([hosts, token](const httplib::Request &req, httplib::Response &res) {
        if (!hosts.count(req.get_header_value("Host"))) {
            answer_error(res, 403, "this server answers to its own address only");
            return httplib::Server::HandlerResponse::Handled;
        }
        if (req.path == "/view.js" || req.path == "/view.css")
            return httplib::Server::HandlerResponse::Unhandled;
        // Pages and events carry the token in the address; requests that
        // change the board in their X-Vexa-Token header, which a page of
        // another origin cannot set.
        const bool changes = req.method != "GET" && req.method != "HEAD";
        const std::string given =
            changes ? req.get_header_value("X-Vexa-Token")
                    : (req.has_param("token") ? req.get_param_value("token") : req.get_header_value("X-Vexa-Token"));
        if (!same_secret(given, token)) {
            answer_error(res, 403, "open the address that 'vexactl board view' printed");
            return httplib::Server::HandlerResponse::Handled;
        }
        if (changes) {
            const std::string origin = req.get_header_value("Origin");
            if (!origin.empty() && (origin.rfind("http://", 0) != 0 || !hosts.count(origin.substr(7)))) {
                answer_error(res, 403, "requests come from this server's own page");
                return httplib::Server::HandlerResponse::Handled;
            }
            if (req.get_header_value("Content-Type").rfind("application/json", 0) != 0) {
                answer_error(res, 415, "a request's body is JSON");
                return httplib::Server::HandlerResponse::Handled;
            }
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });

    server.Get("/", [token](const httplib::Request &, httplib::Response &res) {
        std::string page = vexa::view::page_html();
        const std::string mark = "{{TOKEN}}";
        page.replace(page.find(mark), mark.size(), token);
        res.set_content(page, "text/html; charset=utf-8");
    });
    server.Get("/view.js", [](const httplib::Request &, httplib::Response &res) {
        res.set_content(vexa::view::page_js(), "text/javascript; charset=utf-8");
    });
    server.Get("/view.css", [](const httplib::Request &, httplib::Response &res) {
        res.set_content(vexa::view::page_css(), "text/css; charset=utf-8");
    });
    server.Get("/state", [&view](const httplib::Request &, httplib::Response &res) {
        res.set_content(view.hub().state() + "\n", "application/json");
    });
    server.Get("/events", [&view](const httplib::Request &, httplib::Response &res) {
        auto page = view.hub().follow();
        if (!page)
            return answer_error(res, 503, "too many pages follow this board; close one");
        res.set_header("X-Accel-Buffering", "no");
        res.set_chunked_content_provider(
            "text/event-stream",
            [&view, page](size_t, httplib::DataSink &sink) {
                std::string events;
                // A comment every few seconds finds a page that has gone
                // (its second write fails), so its place is free again.
                if (!view.hub().next(page, 5000, &events))
                    return false;
                if (events.empty())
                    events = ": still here\n\n";
                return sink.write(events.data(), events.size());
            },
            [&view, page](bool) { view.hub().leave(page); });
    });
    for (const char *route : {"/api/line", "/api/serial", "/api/knob"}) {
        server.Post(route, [&view, route](const httplib::Request &req, httplib::Response &res) {
            const auto parsed = vexa::view::parse_request(route, req.body);
            if (!parsed.ok)
                return answer_error(res, parsed.status, parsed.error);
            view.act(parsed.request, res);
        });
    }
    server.set_error_handler([](const httplib::Request &, httplib::Response &res) {
        if (res.body.empty())
            answer_error(res, res.status, res.status == 404 ? "no such page" : "bad request");
    });
}

} // namespace

int main(int argc, char **argv)
{
    Options options;
    if (!parse_options(argc, argv, &options)) {
        std::fprintf(stderr, "usage: vexaboard-view --board DIR [--port N] [--listen ADDR] [--json]\n");
        return 2;
    }
    // Signals are taken by the main thread alone, so every thread started
    // below inherits the mask.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    try {
        vexa::sim::Board board = vexa::sim::Board::open(options.board);
        View view(board, new_token());
        view.start();
        httplib::Server server;
        // The library's default would share the port (SO_REUSEPORT) with
        // another server that asks for it: a port in use is refused here.
        server.set_socket_options([](int sock) {
            const int yes = 1;
            ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        });
        int port = options.port;
        if (port == 0)
            port = server.bind_to_any_port(options.listen);
        else if (!server.bind_to_port(options.listen, port))
            port = -1;
        if (port <= 0) {
            std::fprintf(stderr, "vexactl: cannot listen on %s port %d: %s\n", options.listen.c_str(), options.port,
                         std::strerror(errno));
            view.stop();
            return 1;
        }
        serve(view, server, port, options.listen);
        const std::string url =
            "http://" + url_host(options.listen) + ":" + std::to_string(port) + "/?token=" + view.token();
        if (options.json)
            std::printf("{\"url\":\"%s\",\"port\":%d,\"token\":\"%s\"}\n", url.c_str(), port, view.token().c_str());
        else
            std::printf("%s\n", url.c_str());
        std::fflush(stdout);
        if (!loopback(options.listen))
            std::fprintf(stderr,
                         "vexactl: warning: the view listens on %s: whoever reaches it with its address "
                         "can drive the board\n",
                         options.listen.c_str());
        std::thread listener([&server] { server.listen_after_bind(); });
        int signal = 0;
        sigwait(&signals, &signal);
        // The pages' streams end first, so the server's threads are free to
        // stop.
        view.hub().stop();
        server.stop();
        listener.join();
        view.stop();
    } catch (const std::exception &e) {
        std::fprintf(stderr, "vexactl: %s\n", e.what());
        return 1;
    }
    return 0;
}
