#include "ui/UiHelper.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

extern char** environ;

namespace zentary {

namespace {

// How long a helper gets to leave after its socket closed before it is killed.
constexpr auto kExitGrace = std::chrono::milliseconds(1000);

// Waits for the child to end, killing it once the grace time is over. Runs on
// the I/O thread, never on the engine's.
void reap(pid_t pid)
{
    auto deadline = std::chrono::steady_clock::now() + kExitGrace;
    bool killed = false;
    for (;;) {
        int status = 0;
        pid_t done = ::waitpid(pid, &status, killed ? 0 : WNOHANG);
        if (done == pid) return;
        // ECHILD: a client that ignores SIGCHLD has had it reaped already.
        if (done < 0 && errno != EINTR) return;
        if (!killed && std::chrono::steady_clock::now() >= deadline) {
            ::kill(pid, SIGKILL);
            killed = true;
            continue;
        }
        if (!killed) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

// Which remembered window a message concerns, and what it does to it.
enum class WindowOp { None, Show, Update, Close };
WindowOp windowOp(const UiMessage& message, std::string& window)
{
    std::string type = message.type();
    if (type == "alert") {
        window = "alert:" + std::to_string(message.integer("id").value_or(0));
        return WindowOp::Show;
    }
    if (type == "alert.close") {
        window = "alert:" + std::to_string(message.integer("id").value_or(0));
        return WindowOp::Close;
    }
    std::size_t dot = type.find('.');
    if (dot == std::string::npos) return WindowOp::None;
    window = type.substr(0, dot);
    if (window == "test" || window == "hello") return WindowOp::None;
    std::string verb = type.substr(dot + 1);
    if (verb == "show") return WindowOp::Show;
    if (verb == "update") return WindowOp::Update;
    if (verb == "close") return WindowOp::Close;
    return WindowOp::None;
}

}  // namespace

struct UiHelper::Child {
    pid_t pid = -1;
    UniqueFd socket;
    UniqueFd wake;
    std::mutex mutex;
    std::string out;  // queued bytes not yet written
    bool stopping = false;
    std::thread thread;

    void poke()
    {
        uint64_t one = 1;
        [[maybe_unused]] ssize_t ignored = ::write(wake.get(), &one, sizeof one);
    }

    // The I/O thread: writes what is queued, reads lines, posts them.
    void run(RunLoop& loop, std::shared_ptr<std::atomic<UiHelper*>> self, std::shared_ptr<Child> me)
    {
        UiLineBuffer lines;
        char buffer[16384];
        bool open = true;
        while (open) {
            bool wantWrite;
            {
                std::lock_guard<std::mutex> guard(mutex);
                if (stopping) break;
                wantWrite = !out.empty();
            }
            pollfd fds[2] = {{socket.get(), static_cast<short>(POLLIN | (wantWrite ? POLLOUT : 0)), 0},
                             {wake.get(), POLLIN, 0}};
            if (::poll(fds, 2, -1) < 0) {
                if (errno == EINTR) continue;
                break;
            }
            if (fds[1].revents & POLLIN) {
                uint64_t count = 0;
                [[maybe_unused]] ssize_t ignored = ::read(wake.get(), &count, sizeof count);
            }
            if (fds[0].revents & POLLOUT) {
                std::lock_guard<std::mutex> guard(mutex);
                ssize_t sent = ::send(socket.get(), out.data(), out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
                if (sent > 0)
                    out.erase(0, static_cast<std::size_t>(sent));
                else if (sent < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
                    open = false;
            }
            if (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) {
                ssize_t got = ::recv(socket.get(), buffer, sizeof buffer, MSG_DONTWAIT);
                if (got > 0) {
                    lines.append(std::string_view(buffer, static_cast<std::size_t>(got)));
                } else if (got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
                    open = false;
                }
                for (std::size_t dropped = lines.takeDropped(); dropped; --dropped)
                    post(loop, self, [](UiHelper& helper) { helper.log("ui helper: dropped an overlong line"); });
                while (std::optional<std::string> line = lines.next()) {
                    std::string error;
                    std::optional<UiMessage> message = UiMessage::decode(*line, &error);
                    if (!message) {
                        post(loop, self, [error](UiHelper& helper) {
                            helper.log("ui helper: dropped a malformed line (" + error + ")");
                        });
                        continue;
                    }
                    post(loop, self, [me, message = std::move(*message)](UiHelper& helper) {
                        if (helper.mChild == me && helper.mHandler) helper.mHandler(message);
                    });
                }
            }
        }
        ::shutdown(socket.get(), SHUT_RDWR);
        reap(pid);
        bool expected;
        {
            std::lock_guard<std::mutex> guard(mutex);
            expected = stopping;
        }
        if (!expected) post(loop, self, [me](UiHelper& helper) { helper.childDied(me); });
    }

    template <typename Fn>
    static void post(RunLoop& loop, const std::shared_ptr<std::atomic<UiHelper*>>& self, Fn fn)
    {
        loop.post([self, fn = std::move(fn)] {
            if (UiHelper* helper = self->load()) fn(*helper);
        });
    }

    void stop()
    {
        {
            std::lock_guard<std::mutex> guard(mutex);
            stopping = true;
        }
        // The helper sees the end of its socket and leaves.
        ::shutdown(socket.get(), SHUT_RDWR);
        poke();
        if (thread.joinable()) thread.join();
    }
};

UiHelper::UiHelper(RunLoop& loop, Options options)
    : mLoop(loop), mOptions(std::move(options)), mSelf(std::make_shared<std::atomic<UiHelper*>>(this))
{
}

UiHelper::~UiHelper()
{
    mSelf->store(nullptr);
    if (mChild) mChild->stop();
}

void UiHelper::setMessageHandler(MessageHandler handler)
{
    mHandler = std::move(handler);
}

void UiHelper::setFailureHandler(std::function<void()> handler)
{
    mFailureHandler = std::move(handler);
}

void UiHelper::setLogHandler(LogHandler handler)
{
    mLog = std::move(handler);
}

void UiHelper::log(const std::string& text)
{
    if (mLog)
        mLog(text);
    else
        std::fprintf(stderr, "%s\n", text.c_str());
}

pid_t UiHelper::pid() const
{
    return mChild ? mChild->pid : -1;
}

bool UiHelper::start()
{
    ++mStarts;
    if (mOptions.executable.empty() || ::access(mOptions.executable.c_str(), X_OK) != 0) {
        log("ui helper: cannot run " + mOptions.executable);
        return false;
    }
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return false;
    UniqueFd ours(pair[0]);
    UniqueFd theirs(pair[1]);
    if (theirs.get() == 3) {
        // dup2 onto itself would keep close-on-exec; move it out of the way.
        theirs = UniqueFd(::fcntl(theirs.get(), F_DUPFD_CLOEXEC, 4));
        if (!theirs) return false;
    }
    int flags = ::fcntl(ours.get(), F_GETFL);
    if (flags < 0 || ::fcntl(ours.get(), F_SETFL, flags | O_NONBLOCK) != 0) return false;
    UniqueFd wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake) return false;

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    if (posix_spawn_file_actions_init(&actions) != 0) return false;
    if (posix_spawnattr_init(&attributes) != 0) {
        posix_spawn_file_actions_destroy(&actions);
        return false;
    }
    posix_spawn_file_actions_adddup2(&actions, theirs.get(), 3);
    // The client's signal mask and dispositions are none of the helper's business.
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (int signal : {SIGPIPE, SIGCHLD, SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaddset(&defaults, signal);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    std::vector<std::string> args{mOptions.executable};
    args.insert(args.end(), mOptions.arguments.begin(), mOptions.arguments.end());
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);

    pid_t pid = -1;
    int result = posix_spawn(&pid, mOptions.executable.c_str(), &actions, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (result != 0) {
        log(std::string("ui helper: posix_spawn failed: ") + std::strerror(result));
        return false;
    }

    auto child = std::make_shared<Child>();
    child->pid = pid;
    child->socket = std::move(ours);
    child->wake = std::move(wake);
    child->out = UiMessage("hello").set("version", kUiProtocolVersion).encode() + "\n";
    mChild = child;
    child->thread = std::thread([child, this, self = mSelf] { child->run(mLoop, self, child); });
    for (const auto& [window, message] : mShown) {
        std::lock_guard<std::mutex> guard(child->mutex);
        child->out += message.encode() + "\n";
    }
    child->poke();
    return true;
}

void UiHelper::childDied(const std::shared_ptr<Child>& child)
{
    if (child != mChild) return;
    child->stop();
    mChild.reset();
    log("ui helper: the helper ended");
    if (mFailed || mShown.empty()) return;  // started again when next needed
    while (!mChild) {
        if (mStarts > mOptions.maxRestarts) {
            giveUp();
            return;
        }
        start();
    }
}

void UiHelper::giveUp()
{
    if (mFailed) return;
    mFailed = true;
    mShown.clear();
    log("ui helper: given up after " + std::to_string(mStarts) + " starts");
    mLoop.post([self = mSelf] {
        if (UiHelper* helper = self->load())
            if (helper->mFailureHandler) helper->mFailureHandler();
    });
}

void UiHelper::remember(const UiMessage& message)
{
    std::string window;
    WindowOp op = windowOp(message, window);
    auto it = std::find_if(mShown.begin(), mShown.end(), [&](const auto& entry) { return entry.first == window; });
    switch (op) {
    case WindowOp::None:
        break;
    case WindowOp::Show:
        if (it != mShown.end()) mShown.erase(it);
        mShown.emplace_back(window, message);
        break;
    case WindowOp::Update:
        if (it != mShown.end())
            for (const auto& [key, value] : message.fields())
                if (key != "type") it->second.setValue(key, value);
        break;
    case WindowOp::Close:
        if (it != mShown.end()) mShown.erase(it);
        break;
    }
}

bool UiHelper::send(const UiMessage& message)
{
    if (mFailed) return false;
    remember(message);
    if (!mChild) {
        // start() replays what is remembered, this message included.
        while (!start()) {
            if (mStarts > mOptions.maxRestarts) {
                giveUp();
                return false;
            }
        }
        std::string window;
        if (windowOp(message, window) == WindowOp::None || windowOp(message, window) == WindowOp::Close) {
            std::lock_guard<std::mutex> guard(mChild->mutex);
            mChild->out += message.encode() + "\n";
        }
        mChild->poke();
        return true;
    }
    bool hung = false;
    {
        std::lock_guard<std::mutex> guard(mChild->mutex);
        mChild->out += message.encode() + "\n";
        hung = mChild->out.size() > mOptions.maxQueuedBytes;
    }
    if (hung) {
        log("ui helper: not reading; killing it");
        ::kill(mChild->pid, SIGKILL);  // its end of the socket closes, and it is restarted
    }
    mChild->poke();
    return true;
}

}  // namespace zentary
