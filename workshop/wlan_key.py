"""The keys of WLANs."""

import hashlib
import re


def raw_key(secret, ssid):
    """The key of a pass phrase (IEEE 802.11, annex J.4), or 64 digits as they are."""
    if re.fullmatch("[0-9a-fA-F]{64}", secret):
        return secret.lower()
    if not 8 <= len(secret.encode()) <= 63:
        raise ValueError("a pass phrase has 8 to 63 characters, a raw key 64 hexadecimal digits")
    return hashlib.pbkdf2_hmac("sha1", secret.encode(), ssid.encode(), 4096, 32).hex()
