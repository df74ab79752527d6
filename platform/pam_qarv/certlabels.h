// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>
#include <vector>

/// How certificates are named to a person, safe to show: a PKCS#11 URI by its object and its token, such as
/// "certificate (badge)", if that is not the name of two of them, and otherwise by its text.
std::vector<std::string> certLabels(const std::vector<std::string> &certs);
