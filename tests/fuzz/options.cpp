// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
// The option store. The first line of the input is a value to write, the rest is a user's file.
#include "fuzz.h"
#include "optionsize.h"
#include "optionstore.h"

namespace {

constexpr uint user = 1000;
const QString directory = QStringLiteral("/var/lib/authd/users/");
const QString path = directory + QStringLiteral("1000.conf");
const QString option = QStringLiteral("option");
const QString otherOption = QStringLiteral("other");

bool areSame(const QVariant &one, const QVariant &other)
{
    // Not a number differs from itself.
    return one.userType() == other.userType()
           && (one == other || (one.userType() == QMetaType::Double && qIsNaN(one.toDouble())));
}

/// Changes the option and requires that nothing else changes.
void change(const QVariant &value)
{
    const OptionStore store(QStringLiteral("kavet"));
    const OptionStore otherMethod(QStringLiteral("another"));
    const QVariant before = store.read(user, option);
    const QVariant other = store.read(user, otherOption);
    const QVariant others = otherMethod.read(user, option);

    const bool isStored = store.write(user, option, value) != OptionStore::Failed;
    // The store refuses some numbers.
    REQUIRE(isStored == !OptionSize::isTooLong(value) || value.userType() == QMetaType::Double);
    REQUIRE(areSame(store.read(user, option), isStored ? value : before));
    REQUIRE(areSame(store.read(user, otherOption), other));
    REQUIRE(store.remove(user, option) != OptionStore::Failed);
    REQUIRE(!store.read(user, option).isValid());
    REQUIRE(areSame(store.read(user, otherOption), other));
    store.removeUser(user);
    REQUIRE(!store.read(user, otherOption).isValid());
    REQUIRE(areSame(otherMethod.read(user, option), others));
    // The store, and at most one damaged one.
    REQUIRE(QDir(directory).entryList(QDir::Files | QDir::Hidden).size() <= 2);
}

} // namespace

int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    Fuzz::start(argc, argv);
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray input = Fuzz::bytes(data, size);
    const int end = input.indexOf('\n');
    const QByteArray line = input.left(end);
    QString text = QString::fromUtf8(line);
    text.remove(QChar(0)); // The store refuses it.
    for (const QVariant &value : {QVariant(text), QVariant(text.split(QLatin1Char('|'))), QVariant(line),
                                  QVariant(line.toInt()), QVariant(line.toDouble())}) {
        PlatformTest::removeAll(directory);
        TestDevice::writeFile(path, input.mid(end + 1));
        change(value);
    }
    return 0;
}
