// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QtGlobal>

#ifdef AUTHD_LIBRARY
#define AUTHD_EXPORT Q_DECL_EXPORT
#else
#define AUTHD_EXPORT Q_DECL_IMPORT
#endif
