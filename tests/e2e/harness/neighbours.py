"""Whether the daemon serves everybody: what one client does must not be another's trouble."""

from __future__ import annotations

from harness.clients import IpcClient, XcpClient
from harness.queue_process import AnsweringProcess
from harness.telnet import TelnetClient


class Neighbours:
    """Clients that stay on the two local sockets, and a process that answers: the command "GETX" with "5"."""

    def __init__(self) -> None:
        self.process = AnsweringProcess(2001, b"ENC", lambda _command: b"5\r\n\r\n")
        self.ipc = IpcClient()
        self.xcp = XcpClient()

    def __enter__(self) -> Neighbours:
        return self

    def __exit__(self, *_) -> None:
        self.ipc.close()
        self.xcp.close()
        self.process.close()

    def expect_local_service(self, within: float = 5) -> None:
        self.ipc.ask(b"s3.ENC GETX", b"5\r\n\r\n", within)
        self.xcp.ask(b"s3.ENC GETX", b"5\r\n\r\n", within)

    def expect_service(self, within: float = 5) -> None:
        """The local clients are answered, and a new telnet client gets in."""
        self.expect_local_service(within)
        with TelnetClient() as client:
            client.log_in(within=within)
            client.ask(b"s3.ENC GETX", b"5\r\n\r\n", within)
