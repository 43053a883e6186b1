"""A mail server on this machine: takes mails by SMTP, is away or refuses them on order."""

import email
import email.message
import email.policy
import queue
import socketserver
import threading
from typing import Any, List, cast


class _Session(socketserver.StreamRequestHandler):
    """Commands of one client, each a line with its answer."""

    def handle(self) -> None:
        server = cast("MailServer", self.server)
        self._say("220 here")
        while True:
            line = self.rfile.readline()
            verb = line[:4].upper().strip()
            if verb == b"DATA":
                self._say("354 go on, end with a dot")
                self._say(server.take(self._data()))
            elif verb in (b"EHLO", b"HELO", b"MAIL", b"RCPT", b"RSET"):
                self._say("250 ok")
            elif verb == b"QUIT":
                return self._say("221 bye")
            elif not line:
                return
            else:
                self._say("502 not known")

    def _data(self) -> bytes:
        lines = []  # type: List[bytes]
        while True:
            line = self.rfile.readline()
            if line in (b".\r\n", b""):
                return b"".join(lines)
            lines.append(line[1:] if line[:1] == b"." else line)

    def _say(self, text: str) -> None:
        self.wfile.write(text.encode("ascii") + b"\r\n")


class MailServer(socketserver.ThreadingTCPServer):
    """Away until ``come``: its port is taken, but refuses connections. A context manager."""

    daemon_threads = True

    def __init__(self) -> None:
        super().__init__(("127.0.0.1", 0), _Session, bind_and_activate=False)
        self.server_bind()
        self.address = "127.0.0.1:%d" % self.server_address[1]
        self.mails = queue.Queue()  # type: queue.Queue[email.message.EmailMessage]
        self.refusals = 0  # mails to refuse for now, before others are taken
        self._thread = None  # type: Any

    def come(self) -> None:
        """Begin to listen."""
        self.server_activate()
        self._thread = threading.Thread(target=self.serve_forever, args=(0.05,))
        self._thread.start()

    def take(self, data: bytes) -> str:
        """Keep a mail; the answer to its sender."""
        if self.refusals:
            self.refusals -= 1
            return "451 not now"
        mail = email.message_from_bytes(data, policy=email.policy.default)
        self.mails.put(cast(email.message.EmailMessage, mail))
        return "250 taken"

    def __exit__(self, *error: Any) -> None:
        if self._thread is not None:
            self.shutdown()
            self._thread.join()
        super().__exit__(*error)
