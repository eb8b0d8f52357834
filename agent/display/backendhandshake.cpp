// SPDX-License-Identifier: MIT
#include "agent/display/backendhandshake.h"

#include <utility>

namespace {

constexpr char kNoAuthentication = 1;
constexpr qsizetype kResultBytes = 4;

} // namespace

void BackendHandshake::receive(QByteArray *input)
{
    while (step(input)) {
    }
}

QByteArray BackendHandshake::output()
{
    return std::exchange(pendingOutput, {});
}

bool BackendHandshake::step(QByteArray *input)
{
    switch (current) {
    case State::Version:
        return receiveVersion(input);
    case State::SecurityTypes:
        return receiveSecurityTypes(input);
    case State::Result:
        return receiveResult(input);
    case State::Done:
    case State::Failed:
        break;
    }
    return false;
}

bool BackendHandshake::receiveVersion(QByteArray *input)
{
    if (input->size() < kBackendGreetingBytes) {
        return false;
    }
    const bool isExpected = input->startsWith(kBackendGreeting);
    input->remove(0, kBackendGreetingBytes);
    pendingOutput += isExpected ? QByteArray(kBackendGreeting) : QByteArray();
    current = isExpected ? State::SecurityTypes : State::Failed;
    return true;
}

bool BackendHandshake::receiveSecurityTypes(QByteArray *input)
{
    if (input->isEmpty()) {
        return false;
    }
    const qsizetype count = static_cast<unsigned char>(input->front());
    if (input->size() < 1 + count) {
        return false;
    }
    const bool isOffered = input->mid(1, count).contains(kNoAuthentication);
    input->remove(0, 1 + count);
    pendingOutput += isOffered ? QByteArray(1, kNoAuthentication) : QByteArray();
    current = isOffered ? State::Result : State::Failed;
    return true;
}

bool BackendHandshake::receiveResult(QByteArray *input)
{
    if (input->size() < kResultBytes) {
        return false;
    }
    const bool isFine = input->first(kResultBytes) == QByteArray(kResultBytes, '\0');
    input->remove(0, kResultBytes);
    current = isFine ? State::Done : State::Failed;
    return true;
}
