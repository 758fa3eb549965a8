#!/usr/bin/env python3
"""Writes the man page and the bash completion of ksdeploy from the built binary's own help texts.

    gen_docs.py BINARY --man OUT.1 --completion OUT [--version VERSION]

The command list comes from running the binary without arguments, each command's text from
"--help command=NAME": nothing is written by hand, so the page cannot drift from the program.
The binary runs with a private HOME and TMPDIR so that a build touches no user files.
"""
import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile

ATTRIBUTE = re.compile(r"^\s+attribute\s*:\s*(\S+)\s*$")
FIELD = re.compile(r"^\s+(occurrence|values|default|execution)\s*:\s?(.*)$")
ENUM_WORD = re.compile(r"^[A-Za-z0-9_.-]+$")


def run(binary, *args):
    work = tempfile.mkdtemp(prefix="ksdeploy-docs-")
    try:
        env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "HOME": work, "TMPDIR": work, "LC_ALL": "C.UTF-8",
               "QT_QPA_PLATFORM": "offscreen"}
        proc = subprocess.run([binary] + list(args), env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              timeout=60)
    finally:
        shutil.rmtree(work, ignore_errors=True)
    if proc.returncode != 0:
        sys.exit("gen_docs: '%s %s' failed (exit %d): %s" % (binary, " ".join(args), proc.returncode,
                                                              proc.stderr.decode("latin-1").strip()))
    return proc.stdout.decode("latin-1")


def parse_overview(text):
    """(usage lines, [command names]) from the output without arguments."""
    lines = text.splitlines()
    if "Commands:" not in lines:
        sys.exit("gen_docs: no command list in the program's output")
    split = lines.index("Commands:")
    usage = [l for l in lines[:split] if l.strip()]
    names = [l[2:].strip() for l in lines[split + 1:] if l.startswith("--")]
    if not names:
        sys.exit("gen_docs: the program lists no commands")
    return usage, names


def parse_command(name, text):
    """{'brief': [lines], 'attributes': [{'name', 'occurrence', 'values', 'default', 'execution', 'text'}]}"""
    lines = text.splitlines()
    if not lines or lines[0].strip() != "--" + name:
        sys.exit("gen_docs: unexpected help text for '%s'" % name)
    brief, attributes, current = [], [], None
    for line in lines[1:]:
        m = ATTRIBUTE.match(line)
        if m:
            current = {"name": m.group(1), "occurrence": "", "values": "", "default": "", "execution": "",
                       "text": []}
            attributes.append(current)
            continue
        if current is None:
            brief.append(line)
            continue
        f = FIELD.match(line)
        if f and not current["text"]:
            current[f.group(1)] = f.group(2).strip()
        elif line.strip():
            current["text"].append(line.strip())
    while brief and not brief[-1].strip():
        brief.pop()
    return {"brief": brief, "attributes": attributes}


def enumeration(values):
    """The listed values of an attribute ("true | false", "a, b, c"), or [] for free text."""
    for sep in ("|", ","):
        parts = [p.strip() for p in values.split(sep)]
        if len(parts) >= 2 and all(ENUM_WORD.match(p) for p in parts):
            return parts
    return []


def roff(text):
    """Escapes a line of text for roff; a leading dot or quote would be read as a request."""
    text = text.replace("\\", "\\e").replace("-", "\\-")
    if text.startswith((".", "'")):
        text = "\\&" + text
    return text


def man_page(version, usage, commands):
    out = ['.TH KSDEPLOY 1 "" "ksdeploy %s" "User Commands"' % version,
           ".SH NAME",
           "ksdeploy \\- install desktop software described by a resource graph",
           ".SH SYNOPSIS"]
    synopsis = usage[0].split(":", 1)[1].strip() if usage and ":" in usage[0] else "ksdeploy --COMMAND"
    prog, _, rest = synopsis.partition(" ")
    out += [".B " + roff(prog), roff(rest), ".SH DESCRIPTION"]
    out += [roff(l.strip()) for l in usage[1:]]
    out += [".PP", "Commands and their attributes, as the program describes them with "
            + roff("--help command=NAME") + ":", ".SH COMMANDS"]
    for name, info in commands:
        out.append('.SS "%s"' % roff("--" + name))
        out += [roff(l.strip()) for l in info["brief"] if l.strip()]
        for a in info["attributes"]:
            out += [".TP", ".BI %s \"=%s\"" % (roff(a["name"]), roff(a["values"] or "VALUE"))]
            facts = ["occurrence: " + a["occurrence"]]
            if a["default"]:
                facts.append("default: " + a["default"])
            if a["execution"]:
                facts.append("execution: " + a["execution"])
            out.append(roff("; ".join(facts)))
            for t in a["text"]:
                out += [".br", roff(t)]
    out += [".SH EXIT STATUS", "0 when every command succeeded, otherwise not 0.", ""]
    return "\n".join(out)


COMPLETION = r'''# bash completion for ksdeploy: commands and attribute names, generated from the program's help texts.
_ksdeploy_commands="%(commands)s"
declare -A _ksdeploy_attributes=(%(attributes)s)
declare -A _ksdeploy_values=(%(values)s)

_ksdeploy()
{
    local cur="${COMP_WORDS[COMP_CWORD]}" line="${COMP_LINE:0:COMP_POINT}" word cmd="" i
    # The word under the cursor as typed (bash splits "name=value" at the "=").
    word="${line##*[[:space:]]}"
    for ((i = COMP_CWORD - 1; i > 0; i--)); do
        case "${COMP_WORDS[i]}" in
            --*) cmd="${COMP_WORDS[i]#--}"; break ;;
        esac
    done
    COMPREPLY=()
    if [[ $word == -* || -z $cmd ]]; then
        COMPREPLY=($(compgen -P -- -W "$_ksdeploy_commands" -- "${word#--}"))
        return
    fi
    if [[ $word == *=* ]]; then
        local attr="${word%%%%=*}" value="${word#*=}" list
        if [[ $cmd == help && $attr == command ]]; then
            list="$_ksdeploy_commands"
        else
            list="${_ksdeploy_values[$cmd.$attr]-}"
        fi
        if [[ -n $list ]]; then
            COMPREPLY=($(compgen -W "$list" -- "$value"))
        else
            COMPREPLY=($(compgen -f -- "$value"))
        fi
        # Without "=" among the word breaks, bash replaces the whole word.
        if [[ $COMP_WORDBREAKS != *=* ]]; then
            COMPREPLY=("${COMPREPLY[@]/#/$attr=}")
        fi
        return
    fi
    COMPREPLY=($(compgen -S = -W "${_ksdeploy_attributes[$cmd]-}" -- "$word"))
    [[ ${#COMPREPLY[@]} -gt 0 ]] && compopt -o nospace 2>/dev/null
    return 0
}
complete -F _ksdeploy ksdeploy
'''


def quote(text):
    return "'" + text.replace("'", "'\\''") + "'"


def completion(commands):
    attributes = " ".join("[%s]=%s" % (quote(name), quote(" ".join(a["name"] for a in info["attributes"])))
                          for name, info in commands)
    values = " ".join("[%s]=%s" % (quote(name + "." + a["name"]), quote(" ".join(enumeration(a["values"]))))
                      for name, info in commands for a in info["attributes"] if enumeration(a["values"]))
    return COMPLETION % {"commands": " ".join(name for name, _ in commands), "attributes": attributes,
                         "values": values}


def write(path, text):
    os.makedirs(os.path.dirname(os.path.abspath(path)), exist_ok=True)
    tmp = path + ".tmp"
    with open(tmp, "w", encoding="utf-8") as f:
        f.write(text)
    os.replace(tmp, path)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("binary")
    parser.add_argument("--man", required=True)
    parser.add_argument("--completion", required=True)
    parser.add_argument("--version", default="")
    args = parser.parse_args()
    usage, names = parse_overview(run(args.binary))
    commands = [(name, parse_command(name, run(args.binary, "--help", "command=" + name))) for name in names]
    write(args.man, man_page(args.version, usage, commands))
    write(args.completion, completion(commands))


if __name__ == "__main__":
    main()
