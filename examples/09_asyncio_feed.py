"""Serve changes to browsers and curl as an event stream. Who reads too slowly is dropped.

    export VZCLIENT_HOST=plant.local:8000 VZCLIENT_USER=operator VZCLIENT_PASSWORD=secret
    python3 09_asyncio_feed.py 8080 Boiler Temp Level     # then: curl -N http://127.0.0.1:8080
"""
import asyncio
import json
import os
import signal
import sys
import vzclient.aio

SERVER = [os.environ.get("VZCLIENT_" + name, "") for name in ("HOST", "USER", "PASSWORD")]
HEAD = b"HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nConnection: close\r\n\r\n"


async def feed(port: str, driver: str, *tags: str) -> None:
    for number in (signal.SIGTERM, signal.SIGINT):
        asyncio.get_running_loop().add_signal_handler(number, sys.exit)
    clients = []  # type: list[asyncio.StreamWriter]
    latest = {}  # type: dict[str, bytes]

    def welcome(reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        writer.write(HEAD + b"".join(latest.values()))  # begins with the present values
        clients.append(writer)

    async with vzclient.aio.connect(*SERVER, read_only=True) as plant:
        server = await asyncio.start_server(welcome, "127.0.0.1", int(port))
        print("serving on port %d" % server.sockets[0].getsockname()[1], flush=True)
        async for change in plant[driver].watch(*tags):
            latest[change.tag] = b"data: %s\n\n" % json.dumps(change, default=str).encode()
            for writer in clients:
                writer.write(latest[change.tag])
                if writer.transport.get_write_buffer_size() > 1 << 20:  # bytes
                    writer.transport.abort()
            clients[:] = [writer for writer in clients if not writer.is_closing()]


if __name__ == "__main__":
    asyncio.run(feed(*(sys.argv[1:] if len(sys.argv) > 3 else sys.exit(__doc__))))
