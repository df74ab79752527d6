// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <authd/authdexport.h>

#include <QMap>
#include <QObject>
#include <QString>
#include <QVariant>

class NotificationHandler;
class ValidationScope;

namespace LibAuthd {

/// Base class of everything that has options in the daemon. It knows its name, its options and where they are stored.
///
/// The order of the virtual functions is part of the binary interface, because methods and the daemon are built
/// separately. Add new ones at the end of the last class; never move or remove one.
class AUTHD_EXPORT BaseHandler : public QObject
{
    Q_OBJECT

public:
    /// Creates a handler whose options are stored under `name`. The name must be a file name without "/". Like the name
    /// of an option, it must not contain control characters, "=", "[" or "]", begin with "#", or begin or end with
    /// white space. Nothing can be stored under any other name.
    explicit BaseHandler(const QString &name, QObject *parent = nullptr);
    ~BaseHandler() override;

    /// The name under which the daemon knows this handler.
    virtual QString name() const = 0;
    /// All options with their default values: the method-wide ones for `uid` 0, otherwise those of each user. The type
    /// of a default value is the type of the option. The handler owns the map.
    virtual const QMap<QString, QVariant> &defaultOptions(uint uid) = 0;
    /// The value of an option that the handler computes itself. An invalid variant means that the option is not
    /// computed and that its stored value applies.
    virtual QVariant getOption(uint uid, const QString &option) = 0;
    /// Writes an option on behalf of a caller outside the daemon. Returns false for an option that is not in
    /// defaultOptions(), or when setOptionInternal() fails. The base stores the value with setOptionInternal() and then
    /// calls handleOptionChanged().
    virtual bool setOption(uint uid, const QString &option, const QVariant &value);
    /// Performs a named action with parameters. Returns false when there is no such action. The base has none.
    virtual bool action(uint uid, const QString &action, const QMap<QString, QVariant> &params);
    /// Rules for writing options from outside: those of the method-wide options for `uid` 0, otherwise those of each
    /// user's options.
    virtual const ValidationScope &getOptionsValidations(uint uid) = 0;
    /// Rules for actions. The base has none.
    virtual const ValidationScope &getActionsValidations();
    /// Called when user `uid` has been removed from the system. The base removes this handler's stored options of the
    /// user. It does nothing for `uid` 0, which stands for the handler as a whole.
    virtual void handleUserRemovedInternal(uint uid);
    /// Called when an option has been written from outside. The base does nothing.
    virtual void handleOptionChanged(uint uid, const QString &option, const QVariant &value);

    /// The stored value of `option` of user `uid` (0: of the handler as a whole). Returns the default of
    /// defaultOptions() when none is stored or the store cannot be read, and an invalid variant when there is no
    /// default either. A damaged value counts as not stored; it is logged and kept in a file whose name contains
    /// ".damaged".
    QVariant getOptionInternal(uint uid, const QString &option);
    /// Stores `value` durably and reports it to the daemon with optionChanged(). An invalid variant removes the stored
    /// value and reports the default. A value that is already stored is neither written nor reported again, so
    /// repeating a call is cheap.
    ///
    /// Booleans, integers of 32 and 64 bits, doubles, strings, string lists and byte arrays can be stored, and read
    /// back as the same type.
    ///
    /// Returns false, with a warning in the log and nothing changed, when the value has another type, is a subnormal
    /// double, is text with a null character or a lone surrogate, when the option's name is invalid (see the
    /// constructor), or when writing fails. Returns false without a warning when the value is longer than 4096
    /// characters, strings or bytes.
    bool setOptionInternal(uint uid, const QString &option, const QVariant &value);
    /// Reports to the daemon that `option` of user `uid` now has `value`. Stores nothing. For `computed`, see
    /// NotificationHandler::optionChanged().
    void optionChanged(uint uid, const QString &option, const QVariant &value, bool computed);
    /// Asks the daemon to record an event, see NotificationHandler::logEvent().
    void logEvent(const QString &level, const QString &event, const QString &details);

protected:
    /// Receives the notifications. Null until the daemon sets it; until then notifications are dropped. Not owned.
    NotificationHandler *m_notificator = nullptr;

private:
    const QString m_name;

    Q_DISABLE_COPY(BaseHandler)
};

} // namespace LibAuthd
