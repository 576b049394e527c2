// zentary-ui: the window helper of the data source. It is started by the
// data source with its end of a socket as fd 3, draws what it is told and
// sends back what the user does; it leaves when the socket closes.
#include <QApplication>
#include <QIcon>

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "ui/helper/HelperWindows.h"

namespace {

constexpr int kSocketFd = 3;

// The client that loaded the data source may have left descriptors open
// without close-on-exec; none of them are ours to hold.
void closeStrayDescriptors()
{
    long limit = ::sysconf(_SC_OPEN_MAX);
    if (limit < 0 || limit > 65536) limit = 65536;
    for (int fd = kSocketFd + 1; fd < limit; ++fd) ::close(fd);
}

}  // namespace

int main(int argc, char** argv)
{
    closeStrayDescriptors();
    struct stat info {};
    if (::fstat(kSocketFd, &info) != 0 || !S_ISSOCK(info.st_mode)) {
        std::fprintf(stderr, "zentary-ui: started without its socket on fd %d\n", kSocketFd);
        return 2;
    }
    ::signal(SIGPIPE, SIG_IGN);
    bool testing = false;
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--test") == 0) testing = true;

    QApplication app(argc, argv);
    // Windows come and go at the data source's word, never by closing the last one.
    app.setQuitOnLastWindowClosed(false);
    // Every window carries the desktop's scanner icon, or the one beside us.
    QApplication::setWindowIcon(QIcon::fromTheme(
        "scanner", QIcon(QCoreApplication::applicationDirPath() + QStringLiteral("/zentary-scanner.png"))));
    zentary::HelperWindows windows(kSocketFd, testing);
    return app.exec();
}
