# SPDX-License-Identifier: MIT
"""A small RFB client for tests, standard library only.

    with rfb.Client("127.0.0.1", port, password) as client:
        image = client.framebuffer()
        image.save("screen.png")

It speaks versions 3.3, 3.7 and 3.8 with the raw encoding, and proves who it is by VNC authentication, the same inside
of TLS, or not at all. Every wait ends after the client's timeout with an OSError.
"""

import socket
import ssl
import struct
import zlib

NONE, VNC_AUTHENTICATION, VENCRYPT = 1, 2, 19
X509_VNC = 261
RAW_ENCODING = 0
DESKTOP_SIZE_ENCODING = -308


class ProtocolError(Exception):
    """The server broke the protocol, or closed the connection."""


class AuthenticationFailed(Exception):
    """The server refused the password, or refused to ask for one. The text is its reason, if it gave one."""


class Image:
    """A picture of width * height pixels of three bytes: red, green, blue."""

    def __init__(self, width, height):
        self.width = width
        self.height = height
        self.pixels = bytearray(3 * width * height)

    def put(self, x, y, width, height, pixels):
        """Copies a rectangle of four-byte pixels (blue, green, red, unused) into the image."""
        colours = bytearray(3 * width * height)
        colours[0::3], colours[1::3], colours[2::3] = pixels[2::4], pixels[1::4], pixels[0::4]
        for row in range(height):
            target = 3 * ((y + row) * self.width + x)
            self.pixels[target:target + 3 * width] = colours[3 * row * width:3 * (row + 1) * width]

    def pixel(self, x, y):
        start = 3 * (y * self.width + x)
        return tuple(self.pixels[start:start + 3])

    def colours(self):
        """The set of different pixels."""
        return {bytes(self.pixels[i:i + 3]) for i in range(0, len(self.pixels), 3)}

    def save(self, path):
        """Writes a PNG file."""
        def chunk(kind, data):
            checksum = zlib.crc32(kind + data)
            return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", checksum)

        row_bytes = 3 * self.width
        rows = b"".join(b"\0" + bytes(self.pixels[i:i + row_bytes]) for i in range(0, len(self.pixels), row_bytes))
        header = struct.pack(">IIBBBBB", self.width, self.height, 8, 2, 0, 0, 0)
        with open(path, "wb") as file:
            file.write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(rows))
                       + chunk(b"IEND", b""))


class Client:
    """A connection that is authenticated and initialised, with the screen's width, height and name."""

    def __init__(self, host, port, password, version="3.8", timeout=10, tls=None, connection=None):
        """
        password    None: none is needed, as at a session's local socket
        tls         a context of the module ssl: the connection uses it
        connection  a connected socket, instead of one to host and port
        """
        self.version = version
        self.tls = tls
        self.socket = connection or socket.create_connection((host, port), timeout)
        try:
            self._agree_on_version()
            self._authenticate(password)
            self._initialise()
        except BaseException:
            self.close()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.socket.close()

    def framebuffer(self):
        """Requests the whole screen and waits until it has come."""
        self.socket.sendall(struct.pack(">BBHHHH", 3, 0, 0, 0, self.width, self.height))
        image = Image(self.width, self.height)
        missing = self.width * self.height
        while missing > 0:
            if self._receive_message() != 0:
                continue
            for x, y, width, height, pixels in self._rectangles():
                image.put(x, y, width, height, pixels)
                missing -= width * height
        return image

    def press(self, keysym):
        """Presses and releases a key."""
        for down in (1, 0):
            self.socket.sendall(struct.pack(">BBHI", 4, down, 0, keysym))

    def type(self, text):
        """Types Latin-1 text; a line feed is the return key."""
        for character in text:
            self.press(0xFF0D if character == "\n" else ord(character))

    def resize(self, width, height):
        """Asks for another screen size. The server may refuse, so the caller has to check the size."""
        self.socket.sendall(struct.pack(">BxHii", 2, 2, RAW_ENCODING, DESKTOP_SIZE_ENCODING))
        screen = struct.pack(">IHHHHI", 0, 0, 0, width, height, 0)
        self.socket.sendall(struct.pack(">BxHHBx", 251, width, height, 1) + screen)

    def wait_for_close(self):
        """Reads on until the server closes the connection."""
        try:
            while self.socket.recv(65536):
                pass
        except ConnectionError:
            pass

    def _receive(self, length):
        data = bytearray()
        while len(data) < length:
            part = self.socket.recv(length - len(data))
            if not part:
                raise ProtocolError(f"The server closed the connection, {length - len(data)} bytes too early")
            data += part
        return bytes(data)

    def _unpack(self, form):
        return struct.unpack(form, self._receive(struct.calcsize(form)))

    def _agree_on_version(self):
        greeting = self._receive(12)
        if not greeting.startswith(b"RFB 003."):
            raise ProtocolError(f"Unexpected greeting {greeting!r}")
        major, minor = (int(part) for part in self.version.split("."))
        self.socket.sendall(b"RFB %03d.%03d\n" % (major, minor))

    def _authenticate(self, password):
        if self.version == "3.3":
            (chosen,) = self._unpack(">I")
        else:
            wanted = NONE if password is None else VENCRYPT if self.tls else VNC_AUTHENTICATION
            chosen = wanted if wanted in self.offered_types() else 0
        if chosen == 0:
            raise AuthenticationFailed(self._reason())
        if chosen not in (NONE, VNC_AUTHENTICATION, VENCRYPT):
            raise ProtocolError(f"Unexpected security type {chosen}")
        if self.version != "3.3":
            self.socket.sendall(bytes([chosen]))
        if chosen == VENCRYPT:
            self._start_tls()
        if chosen != NONE:
            self.socket.sendall(vnc_response(password.encode("latin-1"), self._receive(16)))
        if chosen != NONE or self.version == "3.8":
            (result,) = self._unpack(">I")
            if result != 0:
                raise AuthenticationFailed(self._reason() if self.version == "3.8" else "")

    def offered_types(self):
        """The security types that the server offers. If there are none, its reason follows."""
        (count,) = self._unpack(">B")
        return self._receive(count)

    def _start_tls(self):
        major, minor = self._unpack(">BB")
        if (major, minor) < (0, 2):
            raise ProtocolError(f"Unexpected version of VeNCrypt {major}.{minor}")
        self.socket.sendall(bytes([0, 2]))
        refused, count = self._unpack(">BB")
        types = self._unpack(f">{count}I")
        if refused or X509_VNC not in types:
            raise ProtocolError(f"X509Vnc is not offered: {refused} {types}")
        self.socket.sendall(struct.pack(">I", X509_VNC))
        if self._unpack(">B") != (1,):
            raise ProtocolError("The choice of X509Vnc is refused")
        self.socket = self.tls.wrap_socket(self.socket)

    def _reason(self):
        (length,) = self._unpack(">I")
        return self._receive(length).decode("utf-8", "replace")

    def _initialise(self):
        self.socket.sendall(b"\x01")  # share the screen with others
        self.width, self.height = self._unpack(">HH")
        self._receive(16)  # the server's pixel format, replaced by ours below
        (length,) = self._unpack(">I")
        self.name = self._receive(length).decode("utf-8", "replace")
        # 32 bits per pixel, 24 of them used, little endian, true colour: blue, green, red, unused.
        self.socket.sendall(struct.pack(">BxxxBBBBHHHBBBxxx", 0, 32, 24, 0, 1, 255, 255, 255, 16, 8, 0))
        self.socket.sendall(struct.pack(">BxHi", 2, 1, RAW_ENCODING))

    def _receive_message(self):
        """Reads the type of a message, and the rest of it unless it is a framebuffer update."""
        (kind,) = self._unpack(">B")
        if kind == 1:  # colour map
            _, count = self._unpack(">xHH")
            self._receive(6 * count)
        elif kind == 3:  # clipboard
            (length,) = self._unpack(">xxxI")
            self._receive(length)
        elif kind not in (0, 2):  # update, bell
            raise ProtocolError(f"Unexpected message {kind}")
        return kind

    def _rectangles(self):
        (count,) = self._unpack(">xH")
        for _ in range(count):
            x, y, width, height, encoding = self._unpack(">HHHHi")
            if encoding == DESKTOP_SIZE_ENCODING:
                (screens,) = self._unpack(">Bxxx")
                self._receive(16 * screens)
                continue
            if encoding != RAW_ENCODING:
                raise ProtocolError(f"Unexpected encoding {encoding}")
            yield x, y, width, height, self._receive(4 * width * height)


def vnc_response(password, challenge):
    """The response of a client with this password to a challenge of 16 bytes."""
    key = bytes(int(f"{byte:08b}"[::-1], 2) for byte in password[:8].ljust(8, b"\0"))
    return des_encrypt(key, challenge[:8]) + des_encrypt(key, challenge[8:])


# DES on one block (FIPS 46-3). As in its tables, bit 1 is the most significant one.

_INITIAL = [column - 8 * row for column in (58, 60, 62, 64, 57, 59, 61, 63) for row in range(8)]
_FINAL = [_INITIAL.index(i) + 1 for i in range(1, 65)]
_EXPANSION = [(4 * group + i - 1) % 32 + 1 for group in range(8) for i in range(6)]
_PERMUTATION = [16, 7, 20, 21, 29, 12, 28, 17, 1, 15, 23, 26, 5, 18, 31, 10,
                2, 8, 24, 14, 32, 27, 3, 9, 19, 13, 30, 6, 22, 11, 4, 25]
_KEY_BITS = [57, 49, 41, 33, 25, 17, 9, 1, 58, 50, 42, 34, 26, 18, 10, 2, 59, 51, 43, 35, 27, 19, 11, 3, 60, 52, 44, 36,
             63, 55, 47, 39, 31, 23, 15, 7, 62, 54, 46, 38, 30, 22, 14, 6, 61, 53, 45, 37, 29, 21, 13, 5, 28, 20, 12, 4]
_ROUND_KEY_BITS = [14, 17, 11, 24, 1, 5, 3, 28, 15, 6, 21, 10, 23, 19, 12, 4, 26, 8, 16, 7, 27, 20, 13, 2,
                   41, 52, 31, 37, 47, 55, 30, 40, 51, 45, 33, 48, 44, 49, 39, 56, 34, 53, 46, 42, 50, 36, 29, 32]
_SHIFTS = [1, 1, 2, 2, 2, 2, 2, 2, 1, 2, 2, 2, 2, 2, 2, 1]
_BOXES = [[int(digit, 16) for digit in box.replace(" ", "")] for box in (
    "E4D12FB83A6C5907 0F74E2D1A6CB9538 41E8D62BFC973A50 FC8249175B3EA06D",
    "F18E6B34972DC05A 3D47F28EC01A69B5 0E7BA4D158C6932F D8A13F42B67C05E9",
    "A09E63F51DC7B428 D709346A285ECBF1 D6498F30B12C5AE7 1AD069874FE3B52C",
    "7DE3069A1285BC4F D8B56F03472C1AE9 A690CB7DF13E5284 3F06A1D8945BC72E",
    "2C417AB6853FD0E9 EB2C47D150FA3986 421BAD78F9C5630E B8C71E2D6F09A453",
    "C1AF92680D34E75B AF427C9561DE0B38 9EF528C3704A1DB6 432C95FABE17608D",
    "4B2EF08D3C975A61 D0B7491AE35C2F86 14BDC37EAF680592 6BD814A7950FE23C",
    "D2846FB1A93E50C7 1FD8A374C56B0E92 7B419CE206ADF358 21E74A8DFC90356B")]


def _select(bits, table):
    return [bits[i - 1] for i in table]


def _to_bits(data):
    return [byte >> shift & 1 for byte in data for shift in range(7, -1, -1)]


def _substitute(bits):
    output = []
    for number, box in enumerate(_BOXES):
        b = bits[6 * number:6 * number + 6]
        value = box[32 * b[0] + 16 * b[5] + 8 * b[1] + 4 * b[2] + 2 * b[3] + b[4]]
        output += [value >> shift & 1 for shift in (3, 2, 1, 0)]
    return output


def des_encrypt(key, block):
    key_bits = _select(_to_bits(key), _KEY_BITS)
    bits = _select(_to_bits(block), _INITIAL)
    left, right = bits[:32], bits[32:]
    first, second = key_bits[:28], key_bits[28:]
    for shift in _SHIFTS:
        first, second = first[shift:] + first[:shift], second[shift:] + second[:shift]
        round_key = _select(first + second, _ROUND_KEY_BITS)
        mixed = [a ^ b for a, b in zip(_select(right, _EXPANSION), round_key)]
        scrambled = _select(_substitute(mixed), _PERMUTATION)
        left, right = right, [a ^ b for a, b in zip(left, scrambled)]
    text = "".join(str(bit) for bit in _select(right + left, _FINAL))
    return int(text, 2).to_bytes(8, "big")
