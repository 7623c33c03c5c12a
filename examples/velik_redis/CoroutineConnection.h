// One client connection, served as a coroutine task in its worker's task
// group "connections": the same protocol and limits as `Connection`, written
// as one straight loop instead of handlers that keep their place in members.
//
// The loop reads what has arrived (waiting for readability first when the
// last read emptied the socket), answers every whole request in the buffer (pipelined
// requests in order), and sends the replies gathered; when the socket is
// full it waits for writability, and it reads no more until everything is
// sent, so a client that does not read its replies holds at most one batch
// (and never more than `Connection::kBacklog` bytes) of the server's memory.
// Between batches it gives the thread back when its quantum is used. A
// protocol error is answered with one error reply, then the connection
// ends; so does QUIT once its reply is written.
//
// Idle time-out: a timer on the thread's timer wheel, re-armed on every
// read, shuts the socket down when it expires. The body, wherever it waits,
// then sees the end of the stream and ends as if the client had gone.
//
// The worker owns the task: at the body's end the body hands it back
// (`Worker::releaseCoroutine`); dropping it earlier (the worker stopping)
// cancels the body, and the descriptor is closed with the frame either way.
#pragma once

#include <Velik/CoroutineTask.h>

namespace VelikRedis {

class Worker;

// The body of a connection's task: serves `fd`, a connected socket, until
// the client goes, quits, breaks the protocol or stays idle too long.
Velik::Co<> serveConnection(Worker* worker, int fd);

}  // namespace VelikRedis
