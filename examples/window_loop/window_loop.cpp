// Line client in a GLib main loop: the connection is one of the loop's sources, beside the standard input and a timer.
//
// Usage: window_loop HOST PORT. Sends what is typed to a server such as examples/echo and prints the answers; ends with
// the standard input, once all answers are there.
#include "line_client.h"

#include <cstdio>
#include <cstdlib>
#include <glib-unix.h>
#include <vel/frame/error.h>
#include <vel/library.h>

struct Program {
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    Line_Client client;
    bool input_ended = false;
    int result = 0;

    ~Program() { g_main_loop_unref(loop); }

    void fail(uint32_t error) {
        char text[256];
        VELLib::GetErrorMsg(error, text, sizeof text);
        std::fprintf(stderr, "window_loop: %s\n", text);
        result = 1;
        g_main_loop_quit(loop);
    }

    void end_when_answered() {
        if (input_ended && client.is_answered()) g_main_loop_quit(loop);
    }
};

gboolean on_connection(gint, GIOCondition, gpointer program) {
    static_cast<Program*>(program)->client.serve();
    return G_SOURCE_CONTINUE;
}

gboolean on_input(GIOChannel* input, GIOCondition, gpointer context) {
    auto* program = static_cast<Program*>(context);
    gchar* line = nullptr;
    gsize size = 0; // without the line's end, which the last one may lack
    const GIOStatus status = g_io_channel_read_line(input, &line, nullptr, &size, nullptr);
    if (status == G_IO_STATUS_NORMAL) program->client.say(std::string(line, size));
    g_free(line);
    if (status == G_IO_STATUS_NORMAL || status == G_IO_STATUS_AGAIN) return G_SOURCE_CONTINUE;
    program->input_ended = true;
    program->end_when_answered();
    return G_SOURCE_REMOVE;
}

gboolean on_tick(gpointer program) {
    std::printf("tick: %u answers\n", static_cast<Program*>(program)->client.answers());
    return G_SOURCE_CONTINUE;
}

int talk(const char* host, uint16_t port) {
    Program program;
    program.client.on_end = [&](uint32_t error) { program.fail(error); };
    program.client.on_line = [&](const std::string& line) {
        std::printf("answer: %s\n", line.c_str());
        program.end_when_answered();
    };
    if (program.client.connect(host, port) < 0) {
        program.fail(VELLib::GetErrorCode());
        return program.result;
    }
    GIOChannel* input = g_io_channel_unix_new(0);
    g_unix_fd_add(program.client.descriptor(), G_IO_IN, on_connection, &program);
    g_io_add_watch(input, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP), on_input, &program);
    g_timeout_add(250, on_tick, &program);
    g_main_loop_run(program.loop);
    g_io_channel_unref(input);
    return program.result;
}

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: window_loop HOST PORT\n");
        return 2;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    if (VELLib::initialize() < 0) return 1;
    const int result = talk(argv[1], static_cast<uint16_t>(std::strtoul(argv[2], nullptr, 10)));
    VELLib::uninitialize();
    return result;
}
