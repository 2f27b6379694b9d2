"""Answers of the box, byte for byte."""

from zel import soap

PACKET = ("<?xml version='1.0'?>\n<!DOCTYPE wddxPacket SYSTEM 'wddx_0100.dtd'>\n<wddxPacket version='1.0'>\n"
          "<header><comment></comment></header>\n<data>\n{}</data>\n</wddxPacket>\n")


def wrapped(text):
    return f'<S:Envelope xmlns:S="{soap.ENVELOPE}">\n\t<S:Body>\n{text}\t</S:Body>\n</S:Envelope>\n'


def fault(message):
    return wrapped('\t\t<S:Fault xmlns:ns4="http://www.w3.org/2003/05/soap-envelope">\n'
                   f"\t\t\t<faultcode>S:Client</faultcode>\n\t\t\t<faultstring>{message}</faultstring>\n"
                   "\t\t</S:Fault>\n")
