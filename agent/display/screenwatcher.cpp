// SPDX-License-Identifier: MIT
#include "agent/display/screenwatcher.h"

#include "agent/display/displayconnection.h"
#include "agent/display/xauthority.h"

#include <xcb/xcb.h>

#include <QSocketNotifier>
#include <QThread>

#include <cerrno>
#include <cstdlib>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

struct FreeDeleter
{
    void operator()(void *memory) const { std::free(memory); }
};

template <typename T>
using Malloced = std::unique_ptr<T, FreeDeleter>;

struct XcbDeleter
{
    void operator()(xcb_connection_t *connection) const { xcb_disconnect(connection); }
};

} // namespace

/** Written by the thread that connects, and read by the main thread after that thread has finished. */
struct ScreenWatcher::Connection
{
    int socket = -1;          ///< libxcb's, which may close it at any time
    int socketDuplicate = -1; ///< the same socket, with which the main thread can break the connection
    QByteArray cookie;
    std::unique_ptr<xcb_connection_t, XcbDeleter> xcb;
    xcb_window_t root = 0;
    xcb_atom_t windowManagerCheck = XCB_ATOM_NONE; ///< the property that a window manager sets
    QSize size;

    Connection() = default;
    ~Connection() { ::close(socketDuplicate); }
    Q_DISABLE_COPY_MOVE(Connection)

    void open();
};

void ScreenWatcher::Connection::open()
{
    QByteArray method(kXCookieMethod.data(), kXCookieMethod.size());
    xcb_auth_info_t authority = {};
    authority.name = method.data();
    authority.namelen = static_cast<int>(method.size());
    authority.data = cookie.data();
    authority.datalen = static_cast<int>(cookie.size());
    xcb.reset(xcb_connect_to_fd(socket, &authority));
    if (xcb_connection_has_error(xcb.get()) != 0) {
        return;
    }
    root = xcb_setup_roots_iterator(xcb_get_setup(xcb.get())).data->root;
    const uint32_t events = XCB_EVENT_MASK_STRUCTURE_NOTIFY | XCB_EVENT_MASK_PROPERTY_CHANGE;
    xcb_change_window_attributes(xcb.get(), root, XCB_CW_EVENT_MASK, &events);
    // Asked after events are selected. The size in the connection setup may be out of date, and no event would tell.
    const Malloced<xcb_get_geometry_reply_t> geometry(
        xcb_get_geometry_reply(xcb.get(), xcb_get_geometry(xcb.get(), root), nullptr));
    const QByteArray name = "_NET_SUPPORTING_WM_CHECK";
    const Malloced<xcb_intern_atom_reply_t> atom(xcb_intern_atom_reply(
        xcb.get(), xcb_intern_atom(xcb.get(), 0, static_cast<uint16_t>(name.size()), name.constData()), nullptr));
    if (geometry && atom) {
        windowManagerCheck = atom->atom;
        size = QSize(geometry->width, geometry->height);
    }
}

ScreenWatcher::ScreenWatcher(QObject *parent)
    : QObject(parent)
{
}

ScreenWatcher::~ScreenWatcher()
{
    notifier.reset();
    if (thread && thread->isRunning()) {
        // Ends every wait of the thread, because its reads return the end of the stream.
        ::shutdown(connection->socketDuplicate, SHUT_RDWR);
        thread->wait();
    }
}

void ScreenWatcher::start(quint16 display, const QByteArray &cookie)
{
    const int socket = connectToDisplay(display);
    if (socket == -1) {
        emit failed(u"Failed to connect to display %1: %2"_s.arg(display).arg(qt_error_string(errno)));
        return;
    }
    connection = std::make_unique<Connection>();
    connection->socket = socket;
    connection->socketDuplicate = ::fcntl(socket, F_DUPFD_CLOEXEC, 0);
    connection->cookie = cookie;
    thread.reset(QThread::create([target = connection.get()] { target->open(); }));
    connect(thread.get(), &QThread::finished, this, &ScreenWatcher::Thread_finished);
    thread->start();
}

void ScreenWatcher::Thread_finished()
{
    if (!connection->size.isValid()) {
        emit failed(u"The X server refused the agent's own connection"_s);
        return;
    }
    notifier = std::make_unique<QSocketNotifier>(connection->socket, QSocketNotifier::Read);
    connect(notifier.get(), &QSocketNotifier::activated, this, &ScreenWatcher::takeEvents);
    emit started(connection->size);
    // libxcb may have read events together with the reply, and no notifier reports those.
    takeEvents();
}

/**
 * The type is compared with its highest bit, which marks events that an application has sent: those may claim anything.
 */
void ScreenWatcher::takeEvent(const xcb_generic_event_t *event)
{
    if (event->response_type == XCB_CONFIGURE_NOTIFY) {
        const auto *configured = reinterpret_cast<const xcb_configure_notify_event_t *>(event);
        if (configured->window == connection->root) {
            emit resized(QSize(configured->width, configured->height));
        }
    } else if (event->response_type == XCB_PROPERTY_NOTIFY) {
        const auto *changed = reinterpret_cast<const xcb_property_notify_event_t *>(event);
        if (changed->atom == connection->windowManagerCheck && changed->state == XCB_PROPERTY_NEW_VALUE) {
            emit windowManagerStarted();
        }
    }
}

void ScreenWatcher::takeEvents()
{
    xcb_connection_t *const xcb = connection->xcb.get();
    for (Malloced<xcb_generic_event_t> event(xcb_poll_for_event(xcb)); event; event.reset(xcb_poll_for_event(xcb))) {
        takeEvent(event.get());
    }
    if (xcb_connection_has_error(xcb) != 0) {
        notifier->setEnabled(false); // the X server is gone, and XServer reports that
    }
}
