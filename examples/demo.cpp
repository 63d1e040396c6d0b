// The tour of demo.c in C++: open a Gateway connection, list its systems, call programs synchronously
// and asynchronously, call a program with a channel, verify a password, close the connection.
//
//     demo_cpp <port> [host]
//
// Exit status 0 when every step worked.
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "zepclient.hpp"

static void printTime(const char* label, std::chrono::system_clock::time_point when)
{
    if (when == std::chrono::system_clock::time_point{}) {
        std::printf("  %-22s not set\n", label);
        return;
    }
    const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
    std::tm calendar{};
    char text[64];
    gmtime_r(&seconds, &calendar);  // the Gateway's times are taken as UTC
    std::strftime(text, sizeof text, "%A %d %B %Y %H:%M:%S", &calendar);
    std::printf("  %-22s %s\n", label, text);
}

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s <port> [host]\n", argv[0]);
        return 2;
    }
    const char* host = argc > 2 ? argv[2] : "127.0.0.1";
    try {
        std::printf("Opening a connection to the Gateway at %s:%s\n", host, argv[1]);
        zep::Connection conn{host, std::atoi(argv[1])};

        std::printf("Listing the systems the Gateway knows\n");
        for (const zep::System& system : conn.systems())
            std::printf("  %-8s %s\n", system.name.c_str(), system.description.c_str());

        std::printf("Calling program UPPER synchronously with \"hello, gateway\"\n");
        zep::Reply upper = conn.call("UPPER", "hello, gateway");
        std::printf("  UPPER answered \"%.*s\"\n", static_cast<int>(upper.data().size()), upper.data().data());

        std::printf("Calling programs REVERSE and ECHO asynchronously, then collecting the replies in order\n");
        zep::PendingReply first = conn.callAsync("REVERSE", "first request");
        zep::PendingReply second = conn.callAsync("ECHO", "second request");
        for (zep::PendingReply* pending : {&first, &second}) {
            const std::uint32_t qualifier = pending->qualifier();
            const zep::Reply reply = pending->get();
            std::printf("  reply to %u: \"%.*s\"\n", qualifier, static_cast<int>(reply.data().size()),
                        reply.data().data());
        }

        std::printf("Calling program CHANNEL with a channel of three containers\n");
        zep::Channel channel{"DEMOCHANNEL"};
        channel.putText("MODTEXT", "reverse me");
        channel.put("GROWDATA", "twice ");
        channel.putText("KEEP", "left alone");
        conn.call("CHANNEL", channel);
        std::printf("  the channel after the call:\n");
        for (const zep::Container& c : channel)
            std::printf("  %-16.*s %s %3zu bytes: %.*s\n", static_cast<int>(c.name().size()), c.name().data(),
                        c.isText() ? "CHAR" : "BIT ", c.data().size(), static_cast<int>(c.data().size()),
                        c.data().data());

        std::printf("Verifying the password of user ZEPUSER\n");
        const zep::UserDetails details = conn.verifyPassword("ZEPUSER", "ZEPPASS1");
        std::printf("  password accepted\n");
        printTime("first time:", details.time1);
        printTime("second time:", details.time2);
        printTime("third time:", details.time3);
        std::printf("  %-22s %d\n", "verifications so far:", details.count);

        std::printf("Closing the connection\n");
        conn.close();
    } catch (const zep::Error& e) {
        std::printf("  FAILED: %s [%d %s]\ndemo: a step failed\n", e.what(), e.code().value(),
                    e.code().message().c_str());
        return 1;
    }
    std::printf("demo: every step worked\n");
    return 0;
}
