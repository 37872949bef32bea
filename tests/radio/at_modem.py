#!/usr/bin/env python3
"""A virtual AT modem with a slot for a SIM card. Usage: at_modem.py SOCKET

ModemManager finds it at the abstract socket SOCKET, and oFono at a TCP port of the loopback interface, which is
the first line of output. Each line of input is answered with a line as soon as it is done:

    insert CARD [locked]    put in the card with this number, two digits; a locked one takes any PIN
    remove                  take it out
    renumber NUMBER         give it another phone number, which the services are not told
    fail COMMAND            answer this AT command with an error from now on
    allow COMMAND           answer it again

All that a card tells ends with its number. The end of input ends the modem. Each AT command is a line on standard
error.
"""
import asyncio
import sys

# The services can do without all other commands, which are answered with an error.
FIXED_ANSWERS = {"E0": "", "V1": "", "+CMEE=1": "", "+CGMI": "Maker", "+CGMM": "Model", "+CGMR": "1.0",
                 "+CGSN": "356938035643809", "#QSS=?": "#QSS: (0-2)", "#QSS=1": ""}
CARD_COMMANDS = "+CPIN", "+CPIN?", "+CIMI", "+CNUM", "+CRSM"
NO_CARD, PIN_REQUIRED = "+CME ERROR: 10", "+CME ERROR: 11"

# Long enough for everybody to see a card of which a service knows only the identity yet.
SUBSCRIBER_DELAY = 0.2

# Elementary files of a SIM (3GPP TS 51.011)
IDENTITY, GROUP_1, GROUP_2, PHONE_NUMBER = 0x2FE2, 0x6F3E, 0x6F3F, 0x6F40


def pack_digits(digits, size):
    """Two digits a byte, the first in the low half, filled up with F; in hexadecimal."""
    filled = digits.ljust(2 * size, "F")
    return "".join(filled[i + 1] + filled[i] for i in range(0, len(filled), 2))


class Card:
    def __init__(self, number, locked):
        self.identity = f"89882110000000000{number}"
        self.subscriber = f"3101500000000{number}"
        self.phone_number = f"+15550000{number}"
        self.groups = f"A1{number}", f"B2{number}"
        self.locked = locked

    def files(self):
        digits = self.phone_number.removeprefix("+")
        number_size = f"{1 + (len(digits) + 1) // 2:02X}"
        return {IDENTITY: pack_digits(self.identity, 10), GROUP_1: self.groups[0], GROUP_2: self.groups[1],
                PHONE_NUMBER: number_size + "91" + pack_digits(digits, 10) + "FFFF"}

    def answer(self, name, argument):
        match name:
            case "+CPIN":
                self.locked = False
                return ""
            case "+CPIN?":
                return "+CPIN: SIM PIN" if self.locked else "+CPIN: READY"
            case "+CRSM":
                command, file = argument.split(",")[:2]
                return self.access_file(int(command), int(file))
            case _ if self.locked:
                return PIN_REQUIRED
            case "+CIMI":
                return self.subscriber
            case "+CNUM":
                return f'+CNUM: "","{self.phone_number}",145'

    def access_file(self, command, file):
        """GET RESPONSE (192) tells the size of a file, and whether it has records; the others read its content."""
        if self.locked and file != IDENTITY:
            return PIN_REQUIRED
        content = self.files().get(file)
        if content is None:
            return "+CRSM: 106,130"
        if command == 192:
            size, is_record = len(content) // 2, int(file == PHONE_NUMBER)
            content = f"0000{size:04X}{file:04X}040011FF440101{is_record:02X}{size:02X}"
        return f'+CRSM: 144,0,"{content}"'


class Modem:
    def __init__(self):
        self.card = None
        self.failing = set()
        self.ports = set()

    def obey(self, order, *arguments):
        match order:
            case "insert":
                self.card = Card(arguments[0], "locked" in arguments)
                self.announce("#QSS: 1", "+USIMSTATE: 1")
            case "remove":
                self.card = None
                self.announce("#QSS: 0", "+USIMSTATE: 0")
            case "renumber":
                self.card.phone_number = arguments[0]
            case "fail":
                self.failing.add(arguments[0])
            case "allow":
                self.failing.remove(arguments[0])

    def announce(self, *lines):
        """Each service knows one of the lines, and ignores the other."""
        for port in self.ports:
            port.write("".join(f"\r\n{line}\r\n" for line in lines).encode())

    def answer(self, command):
        """The line before OK, or an empty one, or an error in place of both."""
        name, _, argument = command.partition("=")
        if name in self.failing:
            return "ERROR"
        if command in FIXED_ANSWERS:
            return FIXED_ANSWERS[command]
        if name == "#QSS?":
            return f"#QSS: 2,{3 if self.card else 0}"
        if name == "+SIMSTATE?":
            return f"+SIMSTATE: {1 if self.card else 0}"
        if name in CARD_COMMANDS:
            return self.card.answer(name, argument) if self.card else NO_CARD
        return "ERROR"

    async def serve(self, reader, port):
        self.ports.add(port)
        try:
            while line := (await reader.readuntil(b"\r")).decode():
                command = line.strip().removeprefix("AT")
                if command == "+CIMI":
                    await asyncio.sleep(SUBSCRIBER_DELAY)
                answer = self.answer(command)
                print(command, "->", answer, file=sys.stderr, flush=True)
                lines = [answer] if "ERROR" in answer else [answer, "OK"]
                port.write("".join(f"\r\n{line}\r\n" for line in lines if line).encode())
        except (asyncio.IncompleteReadError, ConnectionError):
            self.ports.remove(port)
            port.close()


async def main():
    modem = Modem()
    await asyncio.start_unix_server(modem.serve, "\0" + sys.argv[1])
    tcp = await asyncio.start_server(modem.serve, "127.0.0.1", 0)
    print(tcp.sockets[0].getsockname()[1], flush=True)
    orders = asyncio.StreamReader()
    await asyncio.get_running_loop().connect_read_pipe(lambda: asyncio.StreamReaderProtocol(orders), sys.stdin)
    while order := await orders.readline():
        modem.obey(*order.decode().split())
        print("done", flush=True)


asyncio.run(main())
