"""What the manager can be made to do: the settings, their meaning, and the named scenarios."""

import copy
import json

from wlan_key import raw_key

WLAN_LEVELS = {"open": "104", "wpa-psk": "102", "wpa2-psk": "105", "enterprise": "106"}

# Every setting, as it is when nothing else is asked for. null stands for what the comment says.
DEFAULTS = {
    "form": "unqualified",      # element names of the answers, see FORMS
    "hostname": None,           # null: what the box said
    "color": None,              # a colour code; null: what the box said
    "country": None,            # null: what the box said
    "date": None,               # {"minute": ..., "hour": ..., ...}; null: now
    "omit": [],                 # names of elements to leave out, with all that is in them
    "slp": {
        "ignore": 0,            # so many requests are not answered
        "replies": [["good"]],  # for each request after those the replies sent; the last one stays
        "cluster_ip": None,     # null: the address at which the box reaches the manager
    },
    "soap": {
        "delays": [0],          # seconds before each answer, whoever asked; the last one stays
        "one_at_a_time": False,  # whether all connections wait for the answer to one
        "opens_after": 0,       # seconds from the first SLP answer on in which connections are refused
    },
    "wlan": {
        "send": False,          # whether there is an infrastructureConfig
        "band": "1", "channel": "6", "mode": "1",
        "securityLevel": WLAN_LEVELS["wpa2-psk"],
        "ssid": "workshop",
        "credentials": "Dummy-Credentials",     # null: the key of the pass phrase for the SSID
        "passphrase": "psk-of-the-workshop",
        # null: the PEM text of the given or made certificates
        "cacertificate": "Dummy-CA-Cert",
        "clientcertificate": "Dummy-Client-Cert",
        "keypass": "Lomitrax",
    },
    "update": {
        "order": False,
        "times": 1,             # PreSignIns that get the order, from the first on; 0: all
        "type": "Application",
        "version": "2.1.0",     # of the image ordered
        "protocol": "http",
        "ip": None,             # null: as the box reaches the manager
        "port": None,           # null: that of the image server
        "context": "/images/app.img",
        "filename": "app.img",
        "md5": None,            # null: that of the image
    },
    "image": {
        "behaviour": "good",    # see IMAGE_BEHAVIOURS
        "size": 200000,
        "content": None,        # text of the image; null: bytes made from type, version and size
    },
    "fault": {
        "kind": "none",         # see FAULTS
        "operation": "preSignInTavo",   # the operation it strikes; null: every one
        "times": 0,             # answers it strikes, from the first on; 0: all
        "seconds": 20,          # how long silence and slowness last at most, the image server's too
        "size": 4 << 20,        # of a huge answer
    },
}

FORMS = {
    "unqualified": "the operation response in the manager's namespace, everything in it in none",
    "qualified": "the prefixes of the request: ns4 response, ns2 children of the return element",
    "bare": "no namespace at all below the SOAP body",
    "typed": "as qualified, every element with its type (xsi:type), as toolkits write it",
    "nil": "as qualified; what says nothing new, and more, is there but nil (xsi:nil)",
    "newer": "as unqualified, the other way round, with unknown elements in every element",
}

IMAGE_BEHAVIOURS = {
    "good": "the image",
    "missing": "404",
    "cut": "half of the image, then the connection ends",
    "wrong": "other bytes of the same size",
    "stall": "half of the image, then nothing for fault.seconds",
}

FAULTS = {
    "none": "",
    # what is in the answer
    "not-xml": "a body that is no XML",
    "not-soap": "well-formed XML that is no envelope",
    "wrong-operation": "the response of another operation",
    "missing-return": "an operation response with nothing in it; for signInTavo an empty SOAP body",
    "schema-invalid": "a year that is no number, in a response that is well-formed",
    "empty-answer": "200 and no body",
    "huge-answer": "a well-formed answer of fault.size bytes",
    "entity-bomb": "a document type whose entities multiply",
    "external-entity": "a document type that reads a file and asks a server",
    "soap-fault": "500 and a SOAP fault",
    # how it gets across
    "chunked": "the answer in chunks, without a length",
    "no-length": "the answer without a length; its end is that of the connection",
    "silent": "accepts and never answers",
    "slow": "one byte a second",
    "drop-before-answer": "closes instead of answering",
    "reset": "resets the connection instead of answering",
    "drop-in-head": "closes in the middle of the head",
    "drop-in-body": "closes in the middle of the body",
    "drop-between": "closes behind an answer that promised to keep the connection",
}

HOSTILE_COMMAND = '"; touch /tmp/intruder; `touch /tmp/intruder`; $(touch /tmp/intruder); echo "'


def wlan(name, **more):
    return {"wlan": {"send": True, "securityLevel": WLAN_LEVELS[name], "ssid": f"workshop-{name}",
                     **more}}


def update(image_behaviour="good", **more):
    return {"update": {"order": True, **more}, "image": {"behaviour": image_behaviour}}


SCENARIOS = {
    "plain": ("the sign-in, nothing new", {}),
    "rename": ("a new name, colour and country",
               {"hostname": "BAY-7", "color": "#163279", "country": "AT"}),
    "wlan-open": ("an open WLAN", wlan("open")),
    "wlan-wpa-psk": ("WPA with a pre-shared key (102)", wlan("wpa-psk", credentials=None)),
    "wlan-wpa2-psk": ("WPA2 with a pre-shared key (105)", wlan("wpa2-psk", credentials=None)),
    "wlan-enterprise": ("WPA enterprise (106) with certificates",
                        wlan("enterprise", cacertificate=None, clientcertificate=None, keypass=None)),
    "wlan-unchanged": ("WPA enterprise, the placeholders that say: nothing new", wlan("enterprise")),
    "wlan-unchanged-psk": ("WPA2 with the placeholder that says: nothing new", wlan("wpa2-psk")),
    "application-update": ("a new application image, ordered once", update()),
    "firmware-update": ("a new firmware image, ordered once",
                        update(type="Firmware", context="/images/firmware.img",
                               filename="firmware.img")),
    "wrong-checksum": ("an update with a checksum that is not the image's", update(md5="0" * 32)),
    "image-missing": ("an update whose image is not there", update("missing")),
    "image-cut": ("an update whose download breaks off half way", update("cut")),
    "image-wrong": ("an update whose image is another one", update("wrong")),
    "image-stall": ("an update whose download stops half way", update("stall")),
    "hostile": ("line breaks, quotes, commands and ../ in everything that the box takes over", {
        "hostname": f"BAY\n7{HOSTILE_COMMAND}", "color": "#ede3d3\nopla.mode=OPLA-Next",
        "country": f"D\ntavo.hostname=intruder{HOSTILE_COMMAND}",
        **wlan("wpa2-psk", ssid='a"\n}\nnetwork={\n  ssid="intruder', band="1\n2",
               channel="$(touch /tmp/intruder)", credentials=f'key"\n}}{HOSTILE_COMMAND}'),
        **update(filename=f"../config/agent.configuration{HOSTILE_COMMAND}",
                 context=f"/images/app.img{HOSTILE_COMMAND}", version="9\n.9%n%s.9"),
    }),
    "no-slp": ("the manager does not answer where it is", {"slp": {"replies": [[]]}}),
    "slp-late": ("it answers that only at the fifth request", {"slp": {"ignore": 4}}),
    "slp-foreign": ("it answers that wrongly for the first four requests",
                    {"slp": {"replies": [["no-service", "no-cluster-ip", "error"],
                                         ["broken-length", "list-too-long", "language-too-long",
                                          "cut", "noise"],
                                         ["empty-ip", "no-value", "one-character"],
                                         ["wrong-function", "other-case"], ["good"]]}}),
    "slp-unusable": ("others name addresses that no manager can have, before it names its own",
                     {"slp": {"replies": [["host-name", "no-byte", "short", "padded", "ipv6"],
                                          ["any-address", "own-address", "group", "broadcast", "good"]]}}),
    "slow-manager": ("every answer takes six seconds, one request at a time",
                     {"soap": {"delays": [6], "one_at_a_time": True}}),
    "late-port": ("it refuses connections for 0.7 s after it has told where it is",
                  {"soap": {"opens_after": 0.7}}),
}
# A fault that ends a connection strikes once, so that the second attempt can succeed.
SCENARIOS |= {
    kind: (text, {"fault": {"kind": kind, "times": 1 if kind in
                            ("drop-before-answer", "reset", "drop-in-head", "drop-in-body") else 0}})
    for kind, text in FAULTS.items() if kind != "none"
}


class BadScenario(Exception):
    pass


def merge(settings, changes, where=""):
    if not isinstance(changes, dict):
        raise BadScenario(f"{where or 'the scenario'} must be an object")
    for key, value in changes.items():
        name = f"{where}.{key}" if where else key
        if key not in settings:
            raise BadScenario(f"unknown setting {name}")
        if isinstance(settings[key], dict) and name != "date":
            merge(settings[key], value, name)
        else:
            settings[key] = value


def check(settings):
    from manager_slp import REPLIES
    for name, value, known in (("form", settings["form"], FORMS),
                               ("fault.kind", settings["fault"]["kind"], FAULTS),
                               ("image.behaviour", settings["image"]["behaviour"], IMAGE_BEHAVIOURS)):
        if value not in known:
            raise BadScenario(f"{name}: {value!r} is none of {', '.join(known)}")
    replies = settings["slp"]["replies"]
    if not isinstance(replies, list) or not all(
            isinstance(turn, list) and all(kind in REPLIES for kind in turn) for turn in replies):
        raise BadScenario(f"slp.replies: a list of lists of {', '.join(REPLIES)}")
    if not isinstance(settings["soap"]["delays"], list) or not settings["soap"]["delays"]:
        raise BadScenario("soap.delays: a list of seconds")
    for seconds in (*settings["soap"]["delays"], settings["soap"]["opens_after"]):
        if not isinstance(seconds, (int, float)) or seconds < 0:
            raise BadScenario(f"soap: {seconds!r} is no number of seconds")
    for section, key in (("slp", "ignore"), ("update", "times"), ("image", "size"),
                         ("fault", "times"), ("fault", "seconds"), ("fault", "size")):
        if not isinstance(settings[section][key], int) or settings[section][key] < 0:
            raise BadScenario(f"{section}.{key} must be a number, 0 or more")


def load(name, file=None, assignments=()):
    """The settings of a scenario, changed by a JSON file and by KEY=VALUE assignments."""
    settings = copy.deepcopy(DEFAULTS)
    merge(settings, SCENARIOS[name][1])
    if file:
        try:
            merge(settings, json.loads(file.read_text()))
        except (OSError, ValueError) as error:
            raise BadScenario(f"{file}: {error}") from None
    for assignment in assignments:
        key, equals, value = assignment.partition("=")
        if not equals:
            raise BadScenario(f"{assignment}: KEY=VALUE is wanted")
        try:
            value = json.loads(value)
        except ValueError:
            pass  # then it is text as it stands
        for part in reversed(key.split(".")):
            value = {part: value}
        merge(settings, value)
    check(settings)
    wlan = settings["wlan"]
    if wlan["credentials"] is None:
        try:
            wlan["credentials"] = raw_key(str(wlan["passphrase"]), str(wlan["ssid"]))
        except ValueError as error:
            raise BadScenario(f"wlan.passphrase: {error}") from None
    return settings
