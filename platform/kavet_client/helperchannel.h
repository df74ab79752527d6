// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

/// The socket between the client and a helper. The client sends one request; the helper reports its progress.
namespace HelperChannel {

enum Operation : char { List = 'l', Validate = 'v' };

/// How far a helper has got.
enum Step {
    Prepared = 1, ///< It has loaded what it needs.
    Working = 2, ///< It has taken up its request.
};

/// Sends a request: an operation, and the file that holds its details. Returns false when the helper has gone.
bool send(int socket, Operation operation, int file);
/// The last step that the helper has reported; 0 or less if none.
int progress(int socket);

/// Waits for a request. Returns its file, or -1 when the client has gone. The caller closes the file.
int receive(int socket, Operation &operation);
/// Reports that the helper has taken the next step. Returns false when the client has gone.
bool reportStep(int socket);

} // namespace HelperChannel
