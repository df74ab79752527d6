// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>
#include <utility>
#include <vector>

void benchRequest();
void benchColdRequest();
void benchCertificateCheck();
void benchCertificateList();
void benchCertificateSteps();
void benchPasswordCheck();
void benchLogin();
void benchPlugin();
void benchGrowth();
void benchIdle();
void benchAttacks();
void benchManyUsers();
void benchManyPermissions();
void benchLongUserFile();

/// The benchmarks by name, in the order of the table. Each prints its figures.
inline const std::vector<std::pair<std::string, void (*)()>> benchmarks = {
    {"request", benchRequest},
    {"cold-request", benchColdRequest},
    {"certificate-check", benchCertificateCheck},
    {"certificate-list", benchCertificateList},
    {"certificate-steps", benchCertificateSteps},
    {"password-check", benchPasswordCheck},
    {"login", benchLogin},
    {"plugin", benchPlugin},
    {"growth", benchGrowth},
    {"idle", benchIdle},
    {"attacks", benchAttacks},
    {"many-users", benchManyUsers},
    {"many-permissions", benchManyPermissions},
    {"long-user-file", benchLongUserFile},
};
