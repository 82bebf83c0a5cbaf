// Line client in an X11 window: one poll waits for the display and for the connection.
//
// Usage: window_loop_x11 HOST PORT. Draws the answers of a server such as examples/echo; what is typed is sent with
// Return, Escape ends the program. The title counts the answers.
#include "line_client.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <poll.h>
#include <vel/frame/error.h>
#include <vel/library.h>

constexpr int width = 420;
constexpr int height = 220;
constexpr int margin = 12;
constexpr int line_height = 18;
constexpr size_t shown_lines = (height - 3 * margin - line_height) / line_height;

class Line_Screen {
public:
    ~Line_Screen() {
        if (!display_) return;
        XFreeGC(display_, context_);
        XCloseDisplay(display_);
    }

    bool open() {
        display_ = XOpenDisplay(nullptr);
        if (!display_) return false;
        const int screen = DefaultScreen(display_);
        black_ = BlackPixel(display_, screen);
        white_ = WhitePixel(display_, screen);
        window_ = XCreateSimpleWindow(display_, DefaultRootWindow(display_), 0, 0, width, height, 0, black_, white_);
        context_ = XCreateGC(display_, window_, 0, nullptr);
        XSelectInput(display_, window_, ExposureMask | KeyPressMask);
        deleted_ = XInternAtom(display_, "WM_DELETE_WINDOW", False);
        XSetWMProtocols(display_, window_, &deleted_, 1);
        XMapWindow(display_, window_);
        return true;
    }

    int descriptor() const { return ConnectionNumber(display_); }

    void show(const std::string& title, const std::deque<std::string>& lines, const std::string& typed) {
        XStoreName(display_, window_, title.c_str());
        XClearWindow(display_, window_);
        XSetForeground(display_, context_, black_);
        int y = margin + line_height;
        for (const std::string& line : lines) {
            draw(y, line);
            y += line_height;
        }
        XDrawLine(display_, window_, context_, 0, height - 2 * line_height, width, height - 2 * line_height);
        draw(height - margin, "> " + typed + "_");
    }

    bool has_events() const { return XPending(display_) > 0; }

    /// Handles what the display has sent. Keys go to `typed`, whole lines to `on_line`. False when the user ends it.
    template <class OnLine>
    bool serve(std::string& typed, OnLine on_line) {
        while (has_events()) {
            XEvent event;
            XNextEvent(display_, &event);
            if (event.type == ClientMessage && static_cast<Atom>(event.xclient.data.l[0]) == deleted_) return false;
            if (event.type == KeyPress && !press(event.xkey, typed, on_line)) return false;
        }
        return true;
    }

private:
    template <class OnLine>
    bool press(XKeyEvent& event, std::string& typed, OnLine on_line) {
        char text[16];
        KeySym key = NoSymbol;
        const int size = XLookupString(&event, text, sizeof text, &key, nullptr);
        if (key == XK_Escape) return false;
        if (key == XK_Return) {
            on_line(typed);
            typed.clear();
        } else if (key == XK_BackSpace) {
            if (!typed.empty()) typed.pop_back();
        } else {
            typed.append(text, static_cast<size_t>(size));
        }
        return true;
    }

    void draw(int y, const std::string& text) {
        XDrawString(display_, window_, context_, margin, y, text.data(), static_cast<int>(text.size()));
    }

    Display* display_ = nullptr;
    Window window_ = 0;
    GC context_ = nullptr;
    Atom deleted_ = 0;
    unsigned long black_ = 0;
    unsigned long white_ = 0;
};

int fail(const char* what, uint32_t error) {
    char text[256] = "";
    if (error != 0) VELLib::GetErrorMsg(error, text, sizeof text);
    std::fprintf(stderr, "window_loop_x11: %s%s\n", what, text);
    return 1;
}

int talk(const char* host, uint16_t port) {
    Line_Screen screen;
    if (!screen.open()) return fail("no display", 0);
    Line_Client client;
    std::deque<std::string> lines;
    std::string typed;
    uint32_t ended_by = 0;
    client.on_end = [&](uint32_t error) { ended_by = error; };
    client.on_line = [&](const std::string& line) {
        if (lines.size() == shown_lines) lines.pop_front();
        lines.push_back(line);
    };
    if (client.connect(host, port) < 0) return fail("", VELLib::GetErrorCode());
    while (ended_by == 0) {
        screen.show(std::to_string(client.answers()) + " answers", lines, typed);
        if (screen.has_events()) { // the display's library may have read them already: no poll would tell
            if (!screen.serve(typed, [&](const std::string& line) { client.say(line); })) return 0;
            continue;
        }
        pollfd sources[] = {{screen.descriptor(), POLLIN, 0}, {client.descriptor(), POLLIN, 0}};
        poll(sources, 2, -1);
        if (sources[1].revents & POLLIN) client.serve();
    }
    return fail("", ended_by);
}

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: window_loop_x11 HOST PORT\n");
        return 2;
    }
    if (VELLib::initialize() < 0) return 1;
    const int result = talk(argv[1], static_cast<uint16_t>(std::strtoul(argv[2], nullptr, 10)));
    VELLib::uninitialize();
    return result;
}
