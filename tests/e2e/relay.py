"""TCP relays that misbehave on request, between gateways and the engines that they share. A process
of its own, so that the load that a test makes delays nothing of what passes here.

    relay.py TARGET...     a port of loopback, or the path of a socket
prints the relays' ports in a line, reads "NUMBER MODE" from standard input and answers each with a
line.
"""
import asyncio
import sys

UP, DOWN = 0, 1  # to the engine, to the gateway
# What each mode stops: bytes wait, as on a network that is cut, and come when it is whole.
STOPS = {"pass": (), "slow": (), "refuse": (), "silent": (UP, DOWN), "deaf": (UP,), "mute": (DOWN,)}
SLOWNESS = 0.3  # seconds for each read


class Relay:
    def __init__(self, target):
        self.target = target
        self.mode = "pass"
        self.gates = (asyncio.Event(), asyncio.Event())
        self.writers = set()
        self.set("pass")

    def set(self, mode):
        self.mode = mode
        for way, gate in enumerate(self.gates):
            gate.clear() if way in STOPS[mode] else gate.set()
        if mode == "refuse":
            for writer in self.writers:
                writer.transport.abort()

    async def pump(self, reader, writer, gate):
        while data := await reader.read(65536):
            if self.mode == "slow":
                await asyncio.sleep(SLOWNESS)
            await gate.wait()
            writer.write(data)
            await writer.drain()
        await gate.wait()  # the end does not come through either

    async def serve(self, reader, writer):
        writers = [writer]
        try:
            self.writers.add(writer)
            if self.mode == "refuse":
                raise ConnectionError
            engine, towards = await (asyncio.open_unix_connection(self.target) if "/" in self.target
                                     else asyncio.open_connection("127.0.0.1", int(self.target)))
            writers.append(towards)
            self.writers.add(towards)
            ways = {asyncio.ensure_future(self.pump(reader, towards, self.gates[UP])),
                    asyncio.ensure_future(self.pump(engine, writer, self.gates[DOWN]))}
            _, left = await asyncio.wait(ways, return_when=asyncio.FIRST_COMPLETED)
            for way in left:
                way.cancel()
            await asyncio.gather(*ways, return_exceptions=True)
        except OSError:
            pass  # the engine is not there, or one end has gone
        for each in writers:
            self.writers.discard(each)
            each.transport.abort()


async def main():
    relays = [Relay(target) for target in sys.argv[1:]]
    servers = [await asyncio.start_server(relay.serve, "127.0.0.1", 0) for relay in relays]
    print(*(server.sockets[0].getsockname()[1] for server in servers), flush=True)
    orders = asyncio.StreamReader()
    await asyncio.get_running_loop().connect_read_pipe(
        lambda: asyncio.StreamReaderProtocol(orders), sys.stdin)
    while order := (await orders.readline()).split():
        relays[int(order[0])].set(order[1].decode())
        print("done", flush=True)


if __name__ == "__main__":
    asyncio.run(main())
