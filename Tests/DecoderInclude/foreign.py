#!/usr/bin/env python3
"""Declarations of the decoder library as somebody else might have written them, made from ours: operations in another
order, with others between them, other identifiers, and the same things said in other ways.

usage: foreign.py SEED DIALECT FOLDER     (DIALECT: one of DIALECTS below)
"""
import importlib.util
import random
import re
import sys
from pathlib import Path

_spec = importlib.util.spec_from_file_location(
    "decoder_include", Path(__file__).resolve().parents[2] / "Externals" / "decoder-include.py")
decoder_include = importlib.util.module_from_spec(_spec)
_spec.loader.exec_module(decoder_include)


def shuffled(seed):
    """{interface: ([(result, operation, [(type, parameter)])], identifier)}, the same for each dialect."""
    chance = random.Random(seed)
    interfaces = {}
    for interface, operations in decoder_include.table().items():
        rows = [(result, name, [tuple(p.rsplit(" ", 1)) for p in text.split(", ")] if text else [])
                for name, (result, _, text, _) in operations.items()]
        rows += [("HRESULT", f"Other{n}", [("uint32_t", "which"), ("void**", "thing")][:n % 3])
                 for n in range(chance.randrange(4))]
        chance.shuffle(rows)
        interfaces[interface] = (rows, "{:08X}-{:04X}-{:04X}-{:04X}-{:012X}".format(
            *(chance.getrandbits(bits) for bits in (32, 16, 16, 16, 48))))
    return interfaces


def parameters(rows, flag, prefix=""):
    return ", ".join(prefix + re.sub("BOOL", flag, kind) + " " + name for kind, name in rows)


def guid_numbers(identifier):
    a, b, c, d, e = identifier.split("-")
    return [f"0x{part}" for part in (a, b, c)], [f"0x{byte}" for byte in re.findall("..", d + e)]


def enumerations(form, last=""):
    by_name = {}
    for enumeration, constant, value in decoder_include.codes():
        by_name.setdefault(enumeration, []).append((constant, value))
    return "\n".join(form(enumeration, rows) for enumeration, rows in by_name.items()) + last + "\n"


def scoped(name, rows):
    return f"enum class {name} : unsigned {{ " + ", ".join(f"{c} = {v:#x}" for c, v in rows) + " };"


def unscoped(name, rows):
    return f"typedef enum _{name} {{ " + ", ".join(
        f"{c} = '{v.to_bytes(4, 'big').decode()}'" for c, v in rows) + f" }} {name};"


def numbers(name, rows):
    return f"typedef unsigned long {name};\n" + "\n".join(f"#define {c} {v}ul" for c, v in rows)


def idl_enumeration(name, rows):
    return f"typedef enum {{ " + ", ".join(f"{c} = {v:#x}" for c, v in rows) + f" }} {name};"


def header(interfaces, enums, body, identifiers=""):
    forward = "".join(f"struct {name};\n" for name in interfaces)
    return "#pragma once\n#include <unknwn.h>\n#include <oaidl.h>\n#include <stdint.h>\n" + enums + forward + \
        "".join(body(name, *rows) for name, rows in interfaces.items()) + identifiers


def midl(interfaces):
    """As an IDL compiler writes it: scoped enumerations, bool."""
    def body(name, rows, identifier):
        return f'MIDL_INTERFACE("{identifier}")\n{name} : public IUnknown\n{{\npublic:\n' + "".join(
            f"    virtual {result} STDMETHODCALLTYPE {op}(\n        {parameters(ps, 'bool', '/* [in] */ ')}) = 0;\n"
            for result, op, ps in rows) + "};\n"
    return {"BlackmagicRawAPI_h.h": header(interfaces, enumerations(scoped), body)}


def macros(interfaces):
    """With COM's macros: plain enumerations, BOOL, and identifiers in the header."""
    def body(name, rows, _):
        return f"DECLARE_INTERFACE_({name}, IUnknown)\n{{\n" + "".join(
            (f"    STDMETHOD({op})" if result == "HRESULT" else f"    STDMETHOD_({result}, {op})") +
            f"(THIS_ {parameters(ps, 'BOOL')}) PURE;\n" for result, op, ps in rows) + "};\n"
    guids = "".join(f"DEFINE_GUID(IID_{name}, {', '.join(a + b)});\n" for name, (_, identifier) in interfaces.items()
                    for a, b in [guid_numbers(identifier)])
    return {"api.h": header(interfaces, enumerations(unscoped), body, guids)}


def separate(interfaces):
    """Numbers for enumerations, unsigned char, and identifiers in a file of definitions."""
    def body(name, rows, _):
        return f'extern "C" const IID IID_{name};\nclass {name} : public IUnknown {{\npublic:\n' + "".join(
            f"    virtual {result} STDMETHODCALLTYPE {op} ({parameters(ps, 'unsigned char')}) = 0;\n"
            for result, op, ps in rows) + "};\n"
    guids = "".join(f"const IID IID_{name} = {{{', '.join(a)}, {{{', '.join(b)}}}}};\n"
                    for name, (_, identifier) in interfaces.items() for a, b in [guid_numbers(identifier)])
    return {"BlackmagicRawAPI.h": header(interfaces, enumerations(numbers), body), "BlackmagicRawAPI_i.c": guids}


def idl(interfaces):
    def body(name, rows, identifier):
        return f"[object, uuid({identifier}), helpstring(\"x\")]\ninterface {name} : IUnknown\n{{\n" + "".join(
            f"    {result} {op}({parameters(ps, 'boolean', '[in] ')});\n" for result, op, ps in rows) + "};\n"
    text = 'import "unknwn.idl";\nimport "oaidl.idl";\n' + enumerations(idl_enumeration) + \
        "".join(f"interface {name};\n" for name in interfaces) + \
        "".join(body(name, *rows) for name, rows in interfaces.items())
    return {"BlackmagicRawAPI.idl": text}


DIALECTS = {"midl": midl, "macros": macros, "separate": separate, "idl": idl}


def write(seed, dialect, folder):
    folder = Path(folder)
    folder.mkdir(parents=True, exist_ok=True)
    for name, text in DIALECTS[dialect](shuffled(seed)).items():
        if not (folder / name).is_file() or (folder / name).read_text() != text: # nothing is built anew for it
            (folder / name).write_text(text)


if __name__ == "__main__":
    write(*sys.argv[1:4])
