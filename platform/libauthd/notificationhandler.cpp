// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include <authd/notificationhandler.h>

NotificationHandler::~NotificationHandler() = default;
