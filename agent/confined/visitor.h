// SPDX-License-Identifier: MIT
#pragma once

struct VisitorOrder;
class TlsIdentity;

/**
 * Receives one visitor: RFB, TLS, and the response to the challenge, which the agent judges. A visitor that is let in
 * over TLS is served to the end: its bytes are copied to and from the X server. For one without TLS the function
 * returns once the visitor has been told, and the agent goes on with the connection, of which no byte too much has been
 * read.
 *
 * Blocks until then, or until either socket is closed; the agent sets the deadline.
 *
 * @param client    the visitor's socket, non-blocking; greeted already
 * @param control   blocking; see doorpackets.h
 * @param identity  null when there is no certificate; then no TLS may be offered
 */
void serveVisitor(int client, int control, const VisitorOrder &order, const TlsIdentity *identity);
