"""The settings of the box that is soaked, and the manager that gives it others."""

import collections

import stage

COLORS = {"white": "#ede3d3", "red": "#be1110", "green": "#4e8541", "blue": "#163279"}
COUNTRIES = ["DE", "AT", "FR", "US"]
# The manager's ways in which a sign-in fails or is made difficult.
MANAGER_FAULTS = ["none", "none", "none", "chunked", "reset", "drop-in-body", "not-xml", "soap-fault"]


class Settings:
    """The configuration file: what must be in it."""

    KEYS = ("tavo.hostname", "tavo.color", "country.code")
    FIXED = {"opla.mode": "OPLA", "network.config.discover.mode": "3", "web.listen.backlog": "16",
             "site.note": "what nobody knows is kept, too; " + "x" * 200,
             stage.ADDRESS_KEY: stage.MANAGER}

    def __init__(self, judge, values):
        self.judge = judge
        self.possible = {values}
        stage.CONFIGURATION.write_text("".join(
            f"{key}={value}\n" for key, value in [*self.FIXED.items(), *zip(self.KEYS, values)]))

    def offer(self, values):
        """A manager gives these to whom signs in."""
        self.possible.add(values)

    def saved(self, values):
        """A box that signs in has saved them: it had not asked for that otherwise."""
        self.possible = {values}

    def check(self, text=None, where="the file"):
        possible = set(self.possible)  # a sign-in may come to its end meanwhile
        text = stage.settings_text() if text is None else text
        found = stage.settings(text)
        lost = {key: found.get(key) for key, value in self.FIXED.items() if found.get(key) != value}
        values = tuple(found.get(key) for key in self.KEYS)
        self.judge.check("settings", not lost and text.endswith("\n") and values in possible | self.possible,
                         f"{where}: lost or changed {lost}; {values} is none of {possible}: {text!r}")


class ManagerStage:
    """The manager, which comes with other settings every time."""

    def __init__(self, judge, settings, chance):
        self.judge, self.settings, self.random = judge, settings, chance
        self.manager = None
        self.counts = collections.Counter()

    def change(self):
        self.judge.tell("manager goes" if self.manager else "manager comes")
        if self.manager:
            self.stop()
        else:
            self.start()

    def start(self):
        number = self.counts["came"] = self.counts["came"] + 1
        color, country = self.random.choice(list(COLORS)), self.random.choice(COUNTRIES)
        self.values = (f"soak-{number}", color, country)
        fault = self.random.choice(MANAGER_FAULTS)
        wanted = {"hostname": self.values[0], "color": COLORS[color], "country": country, "fault.kind": fault,
                  "fault.times": 1 if fault in ("reset", "drop-in-body") else 0}
        self.settings.offer(self.values)
        self.manager = stage.Manager("plain", *(f"{key}={value}" for key, value in wanted.items()))

    def look(self):
        """Takes in what has been said to the manager. A box asks to be signed in when it has saved its settings."""
        text = self.manager.output() if self.manager else ""
        if " signInTavo: " in text:
            self.settings.saved(self.values)
        # A manager that comes between the two requests has not seen the first.
        problems = [line for line in text.splitlines() if "PROBLEM" in line and " exchange " in line
                    and "without preSignInTavo" not in line]
        self.judge.check("sign-in", not problems, "; ".join(problems))
        return text.count(" signInTavo: ")

    def stop(self):
        self.judge.check("sign-in", self.manager.stop() == 0, "the manager has not ended well")
        self.counts["sign-ins"] += self.look()
        self.manager = None
