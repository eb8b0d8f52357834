// SPDX-License-Identifier: MIT
#include "agent/display/xpicture.h"

#include "agent/display/displayconnection.h"
#include "agent/display/xauthority.h"

#include <xcb/xcb.h>

#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

/** An attempt fails when the screen is resized between the request for its size and the one for the picture. */
constexpr int kAttempts = 5;

struct Free
{
    void operator()(void *reply) const { std::free(reply); }
};

template <typename Reply>
using ReplyPtr = std::unique_ptr<Reply, Free>;

using ConnectionPtr = std::unique_ptr<xcb_connection_t, decltype(&xcb_disconnect)>;

ConnectionPtr open(int socket, std::string cookie)
{
    std::string name(kXCookieMethod);
    xcb_auth_info_t authorization = {static_cast<int>(name.size()), name.data(), static_cast<int>(cookie.size()),
                                     cookie.data()};
    return {xcb_connect_to_fd(socket, &authorization), &xcb_disconnect};
}

const xcb_visualtype_t *rootVisual(const xcb_screen_t &screen)
{
    for (auto depths = xcb_screen_allowed_depths_iterator(&screen); depths.rem; xcb_depth_next(&depths)) {
        for (auto visuals = xcb_depth_visuals_iterator(depths.data); visuals.rem; xcb_visualtype_next(&visuals)) {
            if (visuals.data->visual_id == screen.root_visual) {
                return visuals.data;
            }
        }
    }
    return nullptr;
}

const xcb_format_t *formatOf(const xcb_setup_t &setup, std::uint8_t depth)
{
    for (auto formats = xcb_setup_pixmap_formats_iterator(&setup); formats.rem; xcb_format_next(&formats)) {
        if (formats.data->depth == depth) {
            return formats.data;
        }
    }
    return nullptr;
}

/** Turns the bytes of the display's pixels into colours. */
class PixelReader
{
public:
    PixelReader(const xcb_setup_t &setup, const xcb_format_t &format, const xcb_visualtype_t &visual)
        : bytesPerPixel(format.bits_per_pixel / 8U)
        , lineBits(format.scanline_pad)
        , isLittleEndian(setup.image_byte_order == XCB_IMAGE_ORDER_LSB_FIRST)
        , masks{visual.red_mask, visual.green_mask, visual.blue_mask}
    {
    }

    [[nodiscard]] std::size_t lineBytes(std::size_t width) const
    {
        return (width * bytesPerPixel * 8 + lineBits - 1) / lineBits * lineBits / 8;
    }

    void read(const std::uint8_t *bytes, std::uint8_t *colours) const
    {
        std::uint32_t pixel = 0;
        for (unsigned i = 0; i < bytesPerPixel; ++i) {
            pixel |= static_cast<std::uint32_t>(bytes[i]) << 8 * (isLittleEndian ? i : bytesPerPixel - 1 - i);
        }
        for (int i = 0; i < 3; ++i) {
            const std::uint32_t most = masks[i] >> std::countr_zero(masks[i]);
            colours[i] = static_cast<std::uint8_t>((pixel & masks[i]) / (masks[i] / most) * 255U / most);
        }
    }

    [[nodiscard]] std::size_t pixelBytes() const { return bytesPerPixel; }

private:
    unsigned bytesPerPixel;
    unsigned lineBits;
    bool isLittleEndian;
    std::uint32_t masks[3];
};

bool readImage(const std::uint8_t *data, std::size_t length, const PixelReader &reader, Picture *picture)
{
    const std::size_t lineBytes = reader.lineBytes(picture->width);
    if (length < lineBytes * picture->height) {
        return false;
    }
    picture->pixels.resize(std::size_t{3} * picture->width * picture->height);
    std::uint8_t *target = picture->pixels.data();
    for (std::size_t y = 0; y < picture->height; ++y) {
        const std::uint8_t *source = data + y * lineBytes;
        for (std::size_t x = 0; x < picture->width; ++x, source += reader.pixelBytes(), target += 3) {
            reader.read(source, target);
        }
    }
    return true;
}

bool fetch(xcb_connection_t *connection, const xcb_screen_t &screen, const PixelReader &reader, Picture *picture)
{
    const ReplyPtr<xcb_get_geometry_reply_t> size(
        xcb_get_geometry_reply(connection, xcb_get_geometry(connection, screen.root), nullptr));
    if (!size) {
        return false;
    }
    const ReplyPtr<xcb_get_image_reply_t> image(xcb_get_image_reply(
        connection,
        xcb_get_image(connection, XCB_IMAGE_FORMAT_Z_PIXMAP, screen.root, 0, 0, size->width, size->height, ~0U),
        nullptr));
    if (!image) {
        return false;
    }
    picture->width = size->width;
    picture->height = size->height;
    return readImage(xcb_get_image_data(image.get()), static_cast<std::size_t>(xcb_get_image_data_length(image.get())),
                     reader, picture);
}

} // namespace

bool takePicture(unsigned number, const std::string &cookie, Picture *picture, std::string *error)
{
    const int socket = connectToDisplay(number);
    const std::string display = std::to_string(number);
    if (socket == -1) {
        *error = "The display :" + display + " cannot be opened: " + std::strerror(errno);
        return false;
    }
    const ConnectionPtr connection = open(socket, cookie);
    if (xcb_connection_has_error(connection.get()) != 0) {
        *error = "The display :" + display + " cannot be opened";
        return false;
    }
    const xcb_setup_t *setup = xcb_get_setup(connection.get());
    const xcb_screen_t *screen = xcb_setup_roots_iterator(setup).data;
    const xcb_visualtype_t *visual = rootVisual(*screen);
    const xcb_format_t *format = formatOf(*setup, screen->root_depth);
    if (!visual || !format || visual->_class != XCB_VISUAL_CLASS_TRUE_COLOR || format->bits_per_pixel < 16 ||
        visual->red_mask == 0 || visual->green_mask == 0 || visual->blue_mask == 0) {
        *error = "The display :" + display + " has colours of a kind that is not supported";
        return false;
    }
    const PixelReader reader(*setup, *format, *visual);
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (fetch(connection.get(), *screen, reader, picture)) {
            return true;
        }
    }
    *error = "The display :" + display + " gives no picture";
    return false;
}
