"""What the dearest texts cost the box, whichever way they come in: processor time and memory."""

import concurrent.futures
import itertools
import os
import pathlib
import string
import threading
from unittest import mock

import pytest

import stage
from manager_http import HttpServer
from stage import exchange, wait_until
from raw_http import chunked, post
from zel.soap import AGENT, CONNECTOR, envelope

SIZE = 1 << 20
ROOM = SIZE - 1000  # of a body, for what is repeated in it
MOST_ELEMENTS = 9900
MEASURED = not stage.SANITIZED and not stage.EMULATED
NAMES = ["".join(letters) for count in (1, 2, 3)
         for letters in itertools.product(string.ascii_letters, repeat=count)]


def attributes(count, value="", prefix=""):
    return "".join(f" {prefix}{name}='{value}'" for name in NAMES[:count])


def filled(piece, most=SIZE):
    return piece * min(most, ROOM // len(piece))


def nested(declared, inner):
    """`inner` where so many namespaces are declared, 256 by each element, filling a body."""
    start = end = ""
    for first in range(0, declared, 256):
        names = NAMES[first:min(first + 256, declared)]
        start += "<n" + "".join(f" xmlns:{'p' * 37}{name}='u'" for name in names) + ">"
        end += "</n>"
    return start + inner * min(MOST_ELEMENTS, (ROOM - len(start + end)) // len(inner)) + end


def command(parameters):
    return f"<executeGenericCommand>{parameters}</executeGenericCommand>"


# What stands in the Body of an envelope or in the data of a packet.
CONTENTS = {
    "attributes of one": f"<reserveDevice{attributes(130000)[:ROOM - 20]}'/>",
    "attributes of a child": f"<reserveDevice><owner{attributes(130000)[:ROOM - 50]}'/></reserveDevice>",
    "prefixed attributes": f"<a xmlns:p='u'{attributes(100000, prefix='p:')[:ROOM - 50]}'/>",
    "namespaces of one": f"<reserveDevice{attributes(70000, 'u', 'xmlns:')[:ROOM - 20]}'/>",
    "namespaces in scope": nested(500, f"<{'p' * 37}a:a/>"),
    "many more in scope": nested(20000, f"<{'p' * 37}a:a/>"),
    "attributes of each": command(filled(f"<pParameters{attributes(250)}/>", 260)),
    "parameters": command(filled("<p><e/></p>", MOST_ELEMENTS // 2)),
    "messages": "<a>" + filled("<e:Body e:mustUnderstand='x'>x</e:Body>", MOST_ELEMENTS) + "</a>",
    "elements": "<reserveDevice>" + filled("<a/>") + "</reserveDevice>",
    "unknown names": filled("<a:a/>", MOST_ELEMENTS),
    "long names": filled(f"<{'n' * 40000}{attributes(250, prefix='p:')}/>"),
    "types": command(filled("<a xmlns:i='http://www.w3.org/2001/XMLSchema-instance' i:type='i:x' i:nil='1'/>", 9900)),
    "long namespace": f"<a xmlns='{'u' * (ROOM // 2)}'>" + "<e:Body e:mustUnderstand='x'/>" * 8000 + "</a>",
    "comments": "<reserveDevice>" + filled("a<!---->") + "</reserveDevice>",
    "instructions": "<reserveDevice>" + filled("<?a?>") + "</reserveDevice>",
    "sections": "<reserveDevice><owner>" + filled("a<![CDATA[b]]>") + "</owner></reserveDevice>",
    "references": "<reserveDevice><owner>" + filled("&#9;&lt;") + "</owner></reserveDevice>",
    "value": f"<reserveDevice owner='{filled('&#9;&lt;')}'/>",
    "long value": "<switchMode><mode>" + filled(" ") + "x</mode></switchMode>",
    "markup to escape": "<isServiceRunning><name>" + filled('"') + "</name></isServiceRunning>",
    "depth": filled("<a>"),
    "allowed depth": "<a>" * 250 + filled("<a/>", MOST_ELEMENTS - 300) + "</a>" * 250,
    "variables": filled(f"<var{attributes(100)} name='DeviceOwner'><string/></var>", 380),
}
HEADER = "".join(f"<{name}:a xmlns:{name}='{'u' * 40}' e:mustUnderstand='{'v' * 30}'/>" for name in NAMES[:8000])
# Whole texts.
BODIES = {name: envelope(content) for name, content in CONTENTS.items()} | {
    "attributes of the envelope": envelope("<a/>").replace(" xmlns", attributes(130000)[:ROOM - 200] + "' xmlns", 1),
    "headers": envelope("<getDeviceInformation/>").replace("<e:Body>", f"<e:Header>{HEADER}</e:Header><e:Body>"),
    "tokens": f"<!DOCTYPE a [<!ATTLIST a b ({'|'.join(NAMES)}) #IMPLIED>]><a/>",
    "defaults": f"<!DOCTYPE a [<!ATTLIST a {' '.join(f'{name} CDATA {chr(34) * 2}' for name in NAMES[:60000])}>]><a/>",
    "encoding": f"<?xml version='1.0' encoding='UTF-7'?><a{attributes(130000)[:ROOM - 60]}'/>",
    "broken encoding": "<?xml version='1.0' encoding='UTF-7'?>" + filled("<a/>+"),
    "not closed": filled("<a b=''>x</b>"),
}


def processor_time(agent):
    """Seconds that the agent's own threads have worked."""
    fields = pathlib.Path(f"/proc/{agent.pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def in_chunks(text):
    body = text.encode() + b" " * max(SIZE + 65000 - len(text), 0)
    return f"POST {CONNECTOR} HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n".encode() + chunked(body, 65536)


WAYS = {
    "connector": post,
    "in chunks": in_chunks,
    "agent service": lambda text: post(text, AGENT),
    "packet": lambda text: post(text.replace("<e:Body>", "<data>").replace("</e:Body>", "</data>"),
                                "/rKo?FunctionName=rkoReleaseDevice", method="GET"),
}


@pytest.mark.parametrize("way", WAYS)
@pytest.mark.usefixtures("agent")
def test_no_body_costs_a_second(agent, way):
    assert exchange(WAYS[way](envelope("<getDeviceInformation/>"))).startswith(b"HTTP/1.0 200 OK")
    for name, text in BODIES.items():
        assert len(text) <= SIZE, name
        before = processor_time(agent)
        answer = exchange(WAYS[way](text))
        wait_until(lambda: not agent.connections(), "it is at rest")
        cost = processor_time(agent) - before
        assert answer.startswith(b"HTTP/1.0 200 OK"), name
        assert len(answer) < 200000 or name == "markup to escape", (name, len(answer))
        assert not MEASURED or cost < 1, f"{name}: {cost} s"


RETURN = "<preSignInTavoResponse><preSignInTavoReturn>{}</preSignInTavoReturn></preSignInTavoResponse>"
ANSWERS = {
    "attributes": BODIES["attributes of the envelope"],
    "blanks": envelope(RETURN.format(f"<infrastructureConfig><band>{filled(' ')}x</band></infrastructureConfig>")),
    "messages": envelope(RETURN.format(filled("<device>x</device>", MOST_ELEMENTS))),
    "unknown": envelope(RETURN.format(filled("<device><a/></device>", MOST_ELEMENTS // 2) +
                                      "<a>" * 250 + "</a>" * 250)),
    "items": envelope(RETURN.format("<updateConfigurationExt><attributes>" + filled("<item><key>a</key></item>", 4900) +
                                    "</attributes></updateConfigurationExt>")),
}


def test_no_answer_of_a_manager_costs_a_second():
    answers = []

    def handle(connection, _):
        connection.send(f"HTTP/1.0 200 OK\r\nContent-Length: {len(answers[-1])}\r\n\r\n{answers[-1]}".encode())

    with stage.namespace("manager"):
        server = HttpServer("HTTP", mock.Mock(), handle, stage.MANAGER, 23005)
    threading.Thread(target=server.run, daemon=True).start()
    with stage.Manager("plain", options=("--soap-port", "23006")):
        for name, answer in ANSWERS.items():
            answers.append(answer)
            with stage.agent() as running:
                wait_until(stage.sign_in_ended, "the sign-in has ended", 120)
                cost = processor_time(running)
            assert not MEASURED or cost < 1, f"{name}: {cost} s"


def ask(request):
    """The answer, for which one of many may have to ask again: the box lets one connection wait."""
    return next(filter(None, (exchange(request) for _ in range(10))), b"")


@pytest.mark.skipif(not MEASURED, reason="other memory than the agent's own")
@pytest.mark.parametrize("name", ("elements", "attributes of each", "messages", "sections", "value"))
def test_large_bodies_at_once_take_little_memory_and_give_it_back(agent, name):
    body = BODIES[name].encode()
    request = post(body + b" " * (SIZE - len(body)))
    exchange(request)
    agent.at_rest()
    before = agent.status("VmRSS")
    pathlib.Path(f"/proc/{agent.pid}/clear_refs").write_text("5")  # the peak begins anew
    with concurrent.futures.ThreadPoolExecutor(20) as pool:
        answers = list(pool.map(ask, [request] * 60))
    assert {answer[:15] for answer in answers} == {b"HTTP/1.0 200 OK"}
    peak = agent.status("VmHWM")
    wait_until(lambda: agent.at_rest() and agent.status("VmRSS") < before + 4096, "the memory is given back", 5)
    assert peak < 96 * 1024
