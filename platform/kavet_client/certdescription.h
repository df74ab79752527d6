// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "certificate.h"

#include <QByteArray>

/// A certificate's URI says which it is. Its description, a query at the end of the URI, tells a person: the common
/// names of its holder and its issuer, and the day on which it expires.
namespace CertDescription {

/// The description of a certificate, to be appended to its URI.
QByteArray of(const Certificate &certificate);

/// Returns a URI without its description. A query that contains anything else stays.
QByteArray removedFrom(const QByteArray &uri);

} // namespace CertDescription
