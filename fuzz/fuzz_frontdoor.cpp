// SPDX-License-Identifier: MIT
#include "agent/confined/rfbhandshake.h"
#include "agent/display/backendhandshake.h"
#include "agent/door/attemptlimiter.h"
#include "agent/door/clientconnection.h"
#include "agent/door/doorkey.h"
#include "agent/door/handshakeconnection.h"
#include "agent/door/passwordstore.h"
#include "agent/door/vncauth.h"
#include "fuzz/dice.h"
#include "fuzz/rawsocket.h"
#include "fuzz/target.h"
#include "tests/helpers/threadreception.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>

#include <chrono>
#include <memory>

#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

/** In the client's bytes this stands for the response of a client that knows the password. */
const QByteArray kRightResponse = "<right>";
/** Separates the client's bytes from those of the X server. */
const QByteArray kSeparator = "\n--\n";
/** A play is over after this many rounds in which nothing happens. */
constexpr int kQuietRounds = 6;
/** A visitor is received in a thread, which may take a while on a busy machine. */
constexpr int kLongestMilliseconds = 15000;

/** What a client of this door is offered. */
RfbOffer offerOf(const QByteArray &challenge)
{
    return {.plain = true, .challenge = challenge.toStdString()};
}

/** The socket of the X server. All inputs share it. */
class BackendDoor final
{
public:
    [[nodiscard]] static BackendDoor &instance()
    {
        static auto *const door = new BackendDoor;
        return *door;
    }
    [[nodiscard]] QString path() const { return folder.filePath(u"rfb"_s); }
    [[nodiscard]] RawSocket accept() const { return listener.accept(); }

private:
    QTemporaryDir folder;
    RawSocket listener = RawSocket::listenAt(path());
};

/** Handles one connected client as the front door does: the handshake, and then copying to and from the X server. */
class Door final
{
public:
    explicit Door(int descriptor)
        : password(passwords.add().password)
    {
        const Visitor visitor = {QHostAddress(QHostAddress::LocalHost), TcpPeer::OtherHost, true};
        const HandshakeHelpers helpers = {&reception, &key, &passwords, &limiter};
        handshake = std::make_unique<HandshakeConnection>(descriptor, visitor, helpers, HandshakeLimits{20s, 0ms});
        QObject::connect(handshake.get(), &HandshakeConnection::knocked, handshake.get(),
                         &HandshakeConnection::receive);
        QObject::connect(handshake.get(), &HandshakeConnection::authenticated, handshake.get(),
                         [this](const QByteArray &used) { letIn(used); });
        QObject::connect(handshake.get(), &HandshakeConnection::failed, handshake.get(), [this] { ++failures; });
    }
    Q_DISABLE_COPY_MOVE(Door)

    [[nodiscard]] bool isLetIn() const { return client != nullptr; }
    [[nodiscard]] bool isOver() const { return failures + ends > 0; }
    [[nodiscard]] int endings() const { return failures + ends; }
    [[nodiscard]] bool isPasswordOpen() const { return passwords.all() == QList<QByteArray>{password}; }
    [[nodiscard]] QByteArray rightResponse(const QByteArray &challenge) const
    {
        return vncAuthResponse(password, challenge);
    }

private:
    void letIn(const QByteArray &used)
    {
        FUZZ_CHECK(used == password && !client && failures == 0);
        FUZZ_CHECK(!handshake->usesTls());
        const Visit visit = handshake->takeVisit();
        ::close(visit.control);
        client = std::make_unique<ClientConnection>(visit.client, u"127.0.0.1"_s);
        QObject::connect(client.get(), &ClientConnection::ended, client.get(), [this] { ++ends; });
        client->start(BackendDoor::instance().path());
    }

    PasswordStore passwords;
    const QByteArray password;
    AttemptLimiter limiter;
    ThreadReception reception;
    DoorKey key{{}, {}}; ///< none, so no TLS is offered
    std::unique_ptr<HandshakeConnection> handshake;
    std::unique_ptr<ClientConnection> client;
    int failures = 0;
    int ends = 0;
};

/** Plays both peers of a connection. They send the bytes of the input, in pieces that the dice choose. */
class Play final
{
public:
    explicit Play(const QByteArray &input)
        : Play(input, RawSocket::pair())
    {
    }
    Q_DISABLE_COPY_MOVE(Play)

    void run()
    {
        do {
            waitFor([this] { return hasAnswered(); });
        } while (!door.isLetIn() && sayAsClient());
        // All that follows happens in this thread.
        int quiet = 0;
        while (quiet < kQuietRounds) {
            quiet = round() ? 0 : quiet + 1;
        }
        check();
        clientSocket.close();
        waitFor([this] { return door.isOver(); });
        FUZZ_CHECK(door.endings() == 1);
    }

private:
    Play(const QByteArray &input, std::pair<RawSocket, int> ends)
        : dice(input)
        , clientSocket(std::move(ends.first))
        , door(ends.second)
    {
        const qsizetype separator = input.indexOf(kSeparator);
        toSay = input.left(separator < 0 ? input.size() : separator);
        backendToSay = separator < 0 ? QByteArray(kBackendGreeting) + QByteArray("\1\1\0\0\0\0hello", 11)
                                     : input.mid(separator + kSeparator.size());
    }

    /** Lets things happen, without saying anything, until @p condition holds. */
    template <typename Condition>
    void waitFor(Condition condition)
    {
        QElapsedTimer timer;
        timer.start();
        while (!condition()) {
            FUZZ_CHECK(timer.elapsed() < kLongestMilliseconds);
            QCoreApplication::processEvents();
            hear(clientSocket, &heard);
        }
    }

    /** Whether the client has heard all that its bytes until now must lead to. */
    [[nodiscard]] bool hasAnswered() const
    {
        using State = RfbHandshake::State;
        RfbHandshake handshake(offerOf(QByteArray(kVncChallengeBytes, 'x')));
        std::string input = said.toStdString();
        handshake.receive(&input);
        if (handshake.state() == State::Judgement && !knowsPassword()) {
            handshake.refuse("Authentication failed");
        } else if (handshake.state() == State::Judgement) {
            handshake.accept();
        }
        const auto length = static_cast<qsizetype>(handshake.output().size());
        return heard.size() >= 12 + length && (handshake.state() != State::Accepted || door.isLetIn());
    }

    /** Lets each side do one step. @return whether anything happened */
    bool round()
    {
        QCoreApplication::processEvents();
        bool isNews = hear(clientSocket, &heard);
        if (!backendSocket.isOpen()) {
            backendSocket = BackendDoor::instance().accept();
            isNews = isNews || backendSocket.isOpen();
        }
        isNews = hear(backendSocket, &backendHeard) || isNews;
        isNews = sayAsBackend() || isNews;
        return sayAsClient() || isNews;
    }

    static bool hear(const RawSocket &socket, QByteArray *what)
    {
        const QByteArray news = socket.readAll();
        *what += news;
        return !news.isEmpty();
    }

    bool sayAsBackend()
    {
        if (!backendSocket.isOpen() || backendToSay.isEmpty()) {
            return false;
        }
        QByteArray piece = takePiece(&backendToSay, &dice);
        backendSaid += piece.first(backendSocket.write(piece));
        return true;
    }

    bool sayAsClient()
    {
        if (!clientSocket.isOpen() || toSay.isEmpty()) {
            return false;
        }
        // The right response depends on the challenge, so it is made here and sent together with what follows.
        QByteArray response;
        if (toSay.startsWith(kRightResponse)) {
            toSay.remove(0, kRightResponse.size());
            response = door.rightResponse(challenge()).leftJustified(kVncChallengeBytes, '\0');
        }
        const qsizetype token = toSay.indexOf(kRightResponse);
        QByteArray next = token < 0 ? toSay : toSay.first(token);
        const QByteArray piece = takePiece(&next, &dice);
        toSay.remove(0, piece.size());
        say(response + piece);
        return true;
    }

    void say(const QByteArray &bytes) { said += bytes.first(clientSocket.write(bytes)); }

    [[nodiscard]] bool speaks33() const { return said.size() >= 12 && said.mid(8, 3).toInt() < 7; }
    [[nodiscard]] qsizetype challengeStart() const { return 12 + (speaks33() ? 4 : 2); }
    [[nodiscard]] QByteArray challenge() const { return heard.mid(challengeStart(), kVncChallengeBytes); }
    /** How many of the client's bytes belong to the handshake. The rest is for the X server. */
    [[nodiscard]] qsizetype handshakeBytes() const { return 12 + (speaks33() ? 0 : 1) + kVncChallengeBytes; }

    void check() const
    {
        FUZZ_CHECK(heard.startsWith("RFB 003.008\n"));
        FUZZ_CHECK(door.isLetIn() == knowsPassword());
        FUZZ_CHECK(door.isLetIn() != door.isPasswordOpen());
        if (door.isLetIn()) {
            checkRelay();
        } else {
            FUZZ_CHECK(!backendSocket.isOpen());
        }
    }

    /** Whether the client has completed the handshake with the right password. */
    [[nodiscard]] bool knowsPassword() const
    {
        if (challenge().size() != kVncChallengeBytes) {
            return false;
        }
        RfbHandshake handshake(offerOf(challenge()));
        std::string input = said.toStdString();
        handshake.receive(&input);
        return handshake.state() == RfbHandshake::State::Judgement &&
               handshake.response() == door.rightResponse(challenge()).toStdString();
    }

    /** Checks that each side has received exactly the bytes that the other one has sent. */
    void checkRelay() const
    {
        BackendHandshake handshake;
        QByteArray forClient = backendSaid;
        handshake.receive(&forClient);
        const bool isRelaying = handshake.state() == BackendHandshake::State::Done;
        const QByteArray toClient = heard.mid(challengeStart() + kVncChallengeBytes + 4);
        const QByteArray toBackend = backendHeard.mid(handshake.output().size());
        FUZZ_CHECK(isRelaying || (toClient.isEmpty() && toBackend.isEmpty()));
        if (!isRelaying || door.isOver()) {
            return;
        }
        FUZZ_CHECK(toClient == forClient);
        FUZZ_CHECK(toBackend == said.mid(handshakeBytes()));
    }

    Dice dice;
    RawSocket clientSocket;
    RawSocket backendSocket;
    Door door;
    QByteArray toSay;
    QByteArray backendToSay;
    QByteArray said;
    QByteArray backendSaid;
    QByteArray heard;
    QByteArray backendHeard;
};

void fuzzFrontDoor(const QByteArray &input)
{
    Play play(input);
    play.run();
}

} // namespace

ZARVO_FUZZ(fuzzFrontDoor)
