// Digest client: sends files to a digest server and prints what it answers.
//
//     digest_client HOST:PORT [--connections N] [--quiet|--table] [FILE...]
//
// Without files, and for the name "-", it sends the standard input. Lines come in the order of the names: digest, two
// blanks, name, then size, lines and milliseconds, each behind a tab; --quiet prints what md5sum prints.
// Exit codes: 0 every file has its digest, 1 some have not, 2 wrong arguments, 3 no connection to the server.
#include "upload.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <vel/frame/error.h>
#include <vel/library.h>
#include <vel/proactor/proactor.h>

namespace {

struct Options {
    std::string host;
    uint32_t port = 0;
    uint32_t connections = 4;
    digest::Style style = digest::Style::lines;
    std::vector<std::string> files;
};

bool parse_server(const std::string& text, Options& options) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) return false;
    options.host = text.substr(0, colon);
    return digest::parse_number(text.c_str() + colon + 1, 65535, options.port) && options.port > 0;
}

bool parse(int argc, char** argv, Options& options) {
    if (argc < 2 || !parse_server(argv[1], options)) return false;
    for (int i = 2; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--quiet") {
            options.style = digest::Style::quiet;
        } else if (argument == "--table") {
            options.style = digest::Style::table;
        } else if (argument == "--connections") {
            if (++i == argc || !digest::parse_number(argv[i], 1000, options.connections)) return false;
        } else if (argument.size() > 2 && argument[0] == '-' && argument[1] == '-') {
            return false;
        } else {
            options.files.push_back(argument);
        }
    }
    if (options.files.empty()) options.files.push_back("-");
    return options.connections > 0;
}

int no_connection(const Options& options, uint32_t code) {
    std::fprintf(stderr, "digest_client: cannot connect to %s:%u: %s\n", options.host.c_str(), options.port,
                 digest::error_text(code).c_str());
    return 3;
}

void expect_sizes(digest::Report& report) {
    for (size_t file = 0; file < report.size(); ++file) {
        std::error_code failed;
        const uint64_t bytes = std::filesystem::file_size(report.name(file), failed);
        if (!failed) report.expect(bytes);
    }
}

int send_files(const Options& options) {
    VEL_INET_Addr server;
    if (server.set(static_cast<uint16_t>(options.port), options.host.c_str()) < 0)
        return no_connection(options, VELLib::GetErrorCode());
    digest::Report report(options.files, options.style);
    expect_sizes(report);
    digest::Run run(report);
    VEL_Proactor proactor;
    if (proactor.open(0) < 0) {
        std::fprintf(stderr, "digest_client: cannot start: %s\n", digest::error_text(VELLib::GetErrorCode()).c_str());
        return 1;
    }
    const size_t connections = std::min<size_t>(options.connections, options.files.size());
    for (size_t i = 0; i < connections; ++i) {
        auto* upload = new digest::Upload(run);
        if (upload->open(&proactor, server) < 0) {
            run.connect_error = VELLib::GetErrorCode();
            run.connection_over();
        }
        upload->release(); // what is pending keeps it
    }
    run.wait();
    proactor.close();
    if (!run.connected) return no_connection(options, run.connect_error);
    return report.finish() ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parse(argc, argv, options)) {
        std::fprintf(stderr, "usage: digest_client HOST:PORT [--connections N] [--quiet|--table] [FILE...]\n");
        return 2;
    }
    if (VELLib::initialize() < 0) return 1;
    const int result = send_files(options);
    VELLib::uninitialize();
    return result;
}
