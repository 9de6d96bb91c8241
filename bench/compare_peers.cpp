// SPDX-License-Identifier: Apache-2.0
// The other logging libraries, each set to write every message at once. Measures each of
// them once and prints its figures for `compare`:
//
//     compare_peers [--messages N] DIRECTORY
#include "compare.h"

#include <boost/log/attributes.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks.hpp>
#include <boost/log/sources/logger.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/support/date_time.hpp>
#include <boost/log/utility/setup/common_attributes.hpp>
#include <boost/make_shared.hpp>
#include <cstdarg>
#include <cstring>
#include <dlfcn.h>
#include <glog/logging.h>
#include <log4cplus/fileappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <log4cxx/fileappender.h>
#include <log4cxx/logger.h>
#include <log4cxx/patternlayout.h>
#include <memory>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>

namespace {

std::string formatted(int number) {
    char text[256];
    const int length = std::snprintf(text, sizeof text, MESSAGE_FORMAT, number, MESSAGE_TEXT);
    return std::string(text, static_cast<size_t>(length));
}

// ---- spdlog ------------------------------------------------------------------------

Contender spdlogRotating(const std::string &name, size_t limit) {
    auto logger = std::make_shared<std::shared_ptr<spdlog::logger>>();
    return {name,
            [logger, limit](const std::string &directory) {
                *logger = std::make_shared<spdlog::logger>(
                    "peer", std::make_shared<spdlog::sinks::rotating_file_sink_mt>(directory + "/peer.log",
                                                                                   limit, FILES_KEPT - 1));
                (*logger)->set_pattern("%E%e,%P,%t,%l,%n,%v");
                (*logger)->flush_on(spdlog::level::trace);
            },
            [logger](int number) {
                (*logger)->info("request {} of {} took longer than was expected and will be tried once more",
                                number, MESSAGE_TEXT);
            },
            [logger] { logger->reset(); }};
}

// ---- glog --------------------------------------------------------------------------

Contender glogUnbuffered() {
    return {"glog, no buffering",
            [](const std::string &directory) {
                static bool ready = [] {
                    google::InitGoogleLogging("compare");
                    return true;
                }();
                (void)ready;
                FLAGS_logbuflevel = -1;
                FLAGS_max_log_size = 100;
                FLAGS_logtostderr = false;
                FLAGS_stderrthreshold = 4;
                for (int severity = 0; severity < 4; ++severity)
                    google::SetLogDestination(severity, severity == 0 ? (directory + "/peer.").c_str() : "");
            },
            [](int number) { LOG(INFO) << formatted(number); }, [] { google::FlushLogFiles(0); }};
}

// ---- log4cplus ---------------------------------------------------------------------

Contender log4cplusImmediate() {
    auto logger = std::make_shared<log4cplus::Logger>();
    return {"log4cplus, immediate flush",
            [logger](const std::string &directory) {
                static log4cplus::Initializer initializer;
                log4cplus::SharedAppenderPtr appender(new log4cplus::RollingFileAppender(
                    directory + "/peer.log", static_cast<long>(FILE_LIMIT), FILES_KEPT, true));
                appender->setLayout(std::unique_ptr<log4cplus::Layout>(
                    new log4cplus::PatternLayout("%D{%s%q},%i,%t,%p,%c,%m%n")));
                *logger = log4cplus::Logger::getInstance("peer");
                logger->setAdditivity(false);
                logger->addAppender(appender);
            },
            [logger](int number) { LOG4CPLUS_INFO_FMT(*logger, MESSAGE_FORMAT, number, MESSAGE_TEXT); },
            [logger] { logger->removeAllAppenders(); }};
}

// ---- log4cxx: a plain file appender, which does not even look at the size --------------

Contender log4cxxImmediate() {
    auto logger = std::make_shared<log4cxx::LoggerPtr>();
    return {"log4cxx, immediate flush",
            [logger](const std::string &directory) {
                auto layout =
                    std::make_shared<log4cxx::PatternLayout>("%d{yyyy-MM-dd HH:mm:ss.SSS},%t,%p,%c,%m%n");
                auto appender =
                    std::make_shared<log4cxx::FileAppender>(layout, directory + "/peer.log", true);
                appender->setImmediateFlush(true);
                *logger = log4cxx::Logger::getLogger("peer");
                (*logger)->setAdditivity(false);
                (*logger)->addAppender(appender);
                (*logger)->setLevel(log4cxx::Level::getInfo());
            },
            [logger](int number) { LOG4CXX_INFO((*logger), formatted(number)); },
            [logger] { (*logger)->removeAllAppenders(); }};
}

// ---- Boost.Log -----------------------------------------------------------------------

Contender boostLog() {
    namespace logging = boost::log;
    namespace expr = boost::log::expressions;
    using Sink = logging::sinks::synchronous_sink<logging::sinks::text_file_backend>;
    auto sink = std::make_shared<boost::shared_ptr<Sink>>();
    auto source = std::make_shared<logging::sources::logger_mt>();
    return {"Boost.Log, auto flush",
            [sink](const std::string &directory) {
                *sink = boost::make_shared<Sink>(logging::keywords::file_name = directory + "/peer_%N.log",
                                                 logging::keywords::rotation_size = FILE_LIMIT,
                                                 logging::keywords::auto_flush = true);
                (*sink)->set_formatter(
                    expr::stream
                    << expr::format_date_time<boost::posix_time::ptime>("TimeStamp", "%Y-%m-%d %H:%M:%S.%f")
                    << ',' << expr::attr<logging::attributes::current_process_id::value_type>("ProcessID")
                    << ',' << expr::attr<logging::attributes::current_thread_id::value_type>("ThreadID")
                    << ',' << expr::smessage);
                logging::core::get()->add_sink(*sink);
                logging::add_common_attributes();
            },
            [source](int number) { BOOST_LOG(*source) << formatted(number); },
            [sink] {
                logging::core::get()->remove_sink(*sink);
                sink->reset();
            }};
}

// ---- syslog(3) to a local socket -------------------------------------------------------

std::string socketPath; // connect() below sends /dev/log here

Contender syslogLocal() {
    auto receiver = std::make_shared<int>(-1);
    auto drain = std::make_shared<std::thread>();
    return {"syslog(3) to a local socket",
            [receiver, drain](const std::string &directory) {
                socketPath = directory + "/socket";
                *receiver = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
                sockaddr_un address{};
                address.sun_family = AF_UNIX;
                std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
                bind(*receiver, reinterpret_cast<const sockaddr *>(&address), sizeof address);
                *drain = std::thread([receiver] {
                    char buffer[65536];
                    while (recv(*receiver, buffer, sizeof buffer, 0) > 0) {
                    }
                });
                openlog("compare", LOG_NDELAY, LOG_USER);
            },
            [](int number) { syslog(LOG_INFO, MESSAGE_FORMAT, number, MESSAGE_TEXT); },
            [receiver, drain] {
                closelog();
                shutdown(*receiver, SHUT_RDWR);
                drain->join();
                close(*receiver);
                unlink(socketPath.c_str());
                socketPath.clear();
            }};
}

} // namespace

extern "C" int connect(int descriptor, const sockaddr *address, socklen_t length) {
    using Connect = int (*)(int, const sockaddr *, socklen_t);
    static const auto real = reinterpret_cast<Connect>(dlsym(RTLD_NEXT, "connect"));
    sockaddr_un mine{};
    if (!socketPath.empty() && address->sa_family == AF_UNIX) {
        mine.sun_family = AF_UNIX;
        std::strncpy(mine.sun_path, socketPath.c_str(), sizeof mine.sun_path - 1);
        return real(descriptor, reinterpret_cast<const sockaddr *>(&mine), sizeof mine);
    }
    return real(descriptor, address, length);
}

int main(int argc, char **argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--messages" && i + 1 < argc)
            settings.messages = std::atoi(argv[++i]);
        else
            settings.directory = argv[i];
    }
    const double clock = clockCost();
    for (const Contender &peer :
         {spdlogRotating("spdlog rotating file, flushed each message", FILE_LIMIT), boostLog(),
          log4cxxImmediate(), log4cplusImmediate(), glogUnbuffered(), syslogLocal()}) {
        Figures figures;
        measure(peer, clock, figures);
        std::printf("%s\t", peer.name.c_str());
        for (const std::vector<double> *figure : figures.all())
            std::printf(" %.6f", figure->back());
        std::printf("\n");
    }
    std::printf("%s\t%.0f\n", ROTATION, rolloverCost(spdlogRotating("rotation", ROLL_KILOBYTES * 1024)));
    return 0;
}
