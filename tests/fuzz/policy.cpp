// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
// A user's policy and a user's settings file, whose values the plugin stores as options. In the input, a tilde stands
// for a long text.
#include "files/settingstext.h"
#include "fuzz.h"
#include "unit/methodfixture.h"

namespace {

using namespace TestDevice;

const QString attempts = QStringLiteral("attempts");
const QString maxAttempts = QStringLiteral("max-attempts");
const QString settings = sharedDirectory + QStringLiteral("/1000.conf");
constexpr int sizeLimit = 64 * 1024;
constexpr int longestValue = 4096;

MethodFixture &fixture()
{
    static auto *const fixture = new MethodFixture; // Qt's own globals may be destroyed first.
    return *fixture;
}

/// What the plugin is to read from a file.
QVariant valueIn(const QByteArray &content, const QString &key)
{
    return content.size() > sizeLimit ? 0 : SettingsText::value(content, key).value_or(0);
}

bool isStorable(const QString &text)
{
    return text.isValidUtf16() && !text.contains(QChar(0));
}

/// Whether the option store keeps `value`.
bool isStorable(const QVariant &value)
{
    if (value.userType() == QMetaType::QByteArray)
        return value.toByteArray().size() <= longestValue;
    const bool isList = value.userType() == QMetaType::QStringList;
    const QStringList texts = isList ? value.toStringList() : QStringList(value.toString());
    int size = isList ? texts.size() : 0;
    for (const QString &text : texts) {
        if (!isStorable(text))
            return false;
        size += text.size();
    }
    return size <= longestValue
           && (isList || value.userType() == QMetaType::QString || value.userType() == QMetaType::Int);
}

bool areSame(const QVariant &one, const QVariant &other)
{
    return one.userType() == other.userType() && one == other;
}

} // namespace

int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    Fuzz::start(argc, argv);
    reset();
    QDir().mkpath(sharedDirectory);
    fixture().d->child.uid = alice;
    fixture().d->child.userConfigPath = settings;
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray content = Fuzz::bytes(data, size).replace('~', QByteArray(longestValue, 'a'));
    for (const QString &path : {currentPolicy, settings}) {
        writeFile(path, content);
        setOwner(path, alice, alice);
    }
    MethodKavet &method = fixture().method;

    const QVariant limit = valueIn(content, maxAttempts);
    const QVariant limitBefore = method.getOptionInternal(0, maxAttempts);
    fixture().d->handleChildFileChanged(currentPolicy);
    REQUIRE(areSame(method.getOptionInternal(0, maxAttempts), isStorable(limit) ? limit : limitBefore));

    const QVariant count = valueIn(content, attempts);
    const QVariant countBefore = method.getOptionInternal(alice, attempts);
    fixture().d->handleChildFileChanged(settings);
    const QVariant expected = count.isValid() ? count : 0; // An invalid value removes the option.
    REQUIRE(areSame(method.getOptionInternal(alice, attempts), isStorable(expected) ? expected : countBefore));

    method.getAttempts(alice);
    method.increaseAttempts(alice);
    fixture().daemon.calls.clear();
    return 0;
}
