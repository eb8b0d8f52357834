// SPDX-License-Identifier: MIT
#include "agent/confined/rfbhandshake.h"
#include "agent/display/backendhandshake.h"
#include "agent/door/clientconnection.h"
#include "agent/door/localhandshake.h"
#include "fuzz/dice.h"
#include "fuzz/rawsocket.h"
#include "fuzz/target.h"

#include <QCoreApplication>
#include <QTemporaryDir>

#include <memory>
#include <string>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

/** A play is over after this many rounds in which nothing happens. */
constexpr int kQuietRounds = 6;
constexpr int kMostRounds = 100;

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

/** A viewer at the local socket sends the input in pieces, and an X server lets it in and then says a word. */
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
        int quiet = 0;
        while (quiet < kQuietRounds) {
            quiet = round() ? 0 : quiet + 1;
        }
        check();
        viewer.close();
        for (int count = 0; count < kMostRounds && failures + ends == 0; ++count) {
            round();
        }
        FUZZ_CHECK(failures + ends == 1);
    }

private:
    Play(const QByteArray &input, std::pair<RawSocket, int> sockets)
        : dice(input)
        , viewer(std::move(sockets.first))
        , handshake(std::make_unique<LocalHandshake>(sockets.second))
        , toSay(input)
    {
        QObject::connect(handshake.get(), &LocalHandshake::failed, handshake.get(), [this] { ++failures; });
        QObject::connect(handshake.get(), &LocalHandshake::agreed, handshake.get(), [this] { letIn(); });
    }

    void letIn()
    {
        FUZZ_CHECK(!client && failures == 0);
        client = std::make_unique<ClientConnection>(handshake->takeClient(), u"local"_s);
        QObject::connect(client.get(), &ClientConnection::ended, client.get(), [this] { ++ends; });
        client->start(BackendDoor::instance().path());
    }

    /** Lets each side do one step. @return whether anything happened */
    bool round()
    {
        QCoreApplication::processEvents();
        bool isNews = hear(viewer, &heard);
        if (!backend.isOpen()) {
            backend = BackendDoor::instance().accept();
            isNews = isNews || backend.isOpen();
        }
        isNews = hear(backend, &backendHeard) || isNews;
        if (backend.isOpen() && !backendToSay.isEmpty()) {
            const QByteArray piece = takePiece(&backendToSay, &dice);
            backendSaid += piece.first(backend.write(piece));
            isNews = true;
        }
        if (viewer.isOpen() && !toSay.isEmpty()) {
            const QByteArray piece = takePiece(&toSay, &dice);
            said += piece.first(viewer.write(piece));
            isNews = true;
        }
        return isNews;
    }

    static bool hear(const RawSocket &socket, QByteArray *what)
    {
        const QByteArray news = socket.readAll();
        *what += news;
        return !news.isEmpty();
    }

    void check() const
    {
        RfbHandshake model(RfbOffer{.none = true});
        std::string rest = said.toStdString();
        model.receive(&rest);
        const bool isAccepted = model.state() == RfbHandshake::State::Accepted;
        const QByteArray answer = "RFB 003.008\n" + QByteArray::fromStdString(model.output());
        FUZZ_CHECK((client != nullptr) == isAccepted);
        FUZZ_CHECK(isAccepted ? heard.startsWith(answer) : answer.startsWith(heard));
        FUZZ_CHECK(isAccepted == backend.isOpen());
        if (isAccepted && ends == 0) {
            BackendHandshake backendModel;
            QByteArray forViewer = backendSaid;
            backendModel.receive(&forViewer);
            FUZZ_CHECK(heard.mid(answer.size()) == forViewer);
            FUZZ_CHECK(backendHeard.mid(backendModel.output().size()).toStdString() == rest);
        }
    }

    Dice dice;
    RawSocket viewer;
    RawSocket backend;
    std::unique_ptr<LocalHandshake> handshake;
    std::unique_ptr<ClientConnection> client;
    int failures = 0;
    int ends = 0;
    QByteArray toSay;
    QByteArray said;
    QByteArray heard;
    QByteArray backendToSay = QByteArray(kBackendGreeting) + QByteArray("\1\1\0\0\0\0hello", 11);
    QByteArray backendSaid;
    QByteArray backendHeard;
};

void fuzzViewerSocket(const QByteArray &input)
{
    Play play(input);
    play.run();
}

} // namespace

ZARVO_FUZZ(fuzzViewerSocket)
