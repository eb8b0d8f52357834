// SPDX-License-Identifier: MIT
#include "agent/display/windowmanager.h"

#include "support/privatefile.h"

#include <QFile>
#include <QStandardPaths>

#include <algorithm>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

/**
 * A window manager needs a tenth of a second. The bound is for busy machines, where waiting is worth it: the window
 * manager does not maximise windows that are older than itself.
 */
constexpr auto kMaxPatience = 8s;

/** The server gives up on a session that is not ready within 15 seconds. Of these the X server may take 10. */
constexpr auto kReadyTime = 13s;

/**
 * Main windows fill the screen and have no frame. Dialogs keep their frame, so that they can be moved and closed. There
 * is one desktop and no menu, and the window manager takes no key, so applications get them all.
 */
constexpr char kOpenboxSettings[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<openbox_config xmlns="http://openbox.org/3.4/rc">
  <focus><focusNew>yes</focusNew><followMouse>no</followMouse></focus>
  <placement><policy>Smart</policy><center>yes</center></placement>
  <theme><titleLayout>LC</titleLayout></theme>
  <desktops><number>1</number><popupTime>0</popupTime></desktops>
  <keyboard/>
  <mouse>
    <context name="Client">
      <mousebind button="Left" action="Press"><action name="Focus"/><action name="Raise"/></mousebind>
      <mousebind button="Middle" action="Press"><action name="Focus"/><action name="Raise"/></mousebind>
      <mousebind button="Right" action="Press"><action name="Focus"/><action name="Raise"/></mousebind>
    </context>
    <context name="Titlebar">
      <mousebind button="Left" action="Press"><action name="Focus"/><action name="Raise"/></mousebind>
      <mousebind button="Left" action="Drag"><action name="Move"/></mousebind>
    </context>
    <context name="Close">
      <mousebind button="Left" action="Click"><action name="Close"/></mousebind>
    </context>
  </mouse>
  <applications>
    <application type="normal">
      <decor>no</decor>
      <maximized>yes</maximized>
      <focus>yes</focus>
    </application>
  </applications>
</openbox_config>
)";

} // namespace

bool prepareWindowManager(const QString &settingsPath, QList<QByteArray> *arguments, QString *error)
{
    const QString openbox = QStandardPaths::findExecutable(u"openbox"_s);
    if (!openbox.isEmpty()) {
        if (!writePrivateFile(settingsPath, kOpenboxSettings, error)) {
            return false;
        }
        *arguments = {QFile::encodeName(openbox), "--sm-disable", "--config-file", QFile::encodeName(settingsPath)};
        return true;
    }
    const QString matchbox = QStandardPaths::findExecutable(u"matchbox-window-manager"_s);
    *arguments = {};
    if (!matchbox.isEmpty()) {
        *arguments = {QFile::encodeName(matchbox), "-use_titlebar", "no"};
    }
    return true;
}

std::chrono::milliseconds windowManagerPatience(std::chrono::milliseconds sinceStart)
{
    return std::clamp<std::chrono::milliseconds>(kReadyTime - sinceStart, 0ms, kMaxPatience);
}
