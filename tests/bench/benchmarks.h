// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <map>
#include <string>

void benchAttacks();
void benchCertificateCheck();
void benchCertificateList();
void benchCertificateSteps();
void benchColdRequest();
void benchGrowth();
void benchIdle();
void benchLogin();
void benchPasswordCheck();
void benchPlugin();
void benchRequest();
void benchManyUsers();
void benchManyPermissions();
void benchLongUserFile();

/// The benchmarks by name. Each prints its figures.
inline const std::map<std::string, void (*)()> benchmarks = {
    {"attacks", benchAttacks},
    {"certificate-check", benchCertificateCheck},
    {"certificate-list", benchCertificateList},
    {"certificate-steps", benchCertificateSteps},
    {"cold-request", benchColdRequest},
    {"growth", benchGrowth},
    {"idle", benchIdle},
    {"login", benchLogin},
    {"password-check", benchPasswordCheck},
    {"plugin", benchPlugin},
    {"request", benchRequest},
    {"many-users", benchManyUsers},
    {"many-permissions", benchManyPermissions},
    {"long-user-file", benchLongUserFile},
};
