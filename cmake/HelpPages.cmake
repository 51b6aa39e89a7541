# Writes the manual page implvm(1) and the bash completion of implvm from
# the help texts of a built implvm: `implvm --help`, then `implvm COMMAND
# --help` for every command a help text lists, and so on down. A command
# added to implvm appears in both at the next build.
#
#   cmake -DIMPLVM=bin/implvm -DVERSION=1.2.3 -DMAN_PAGE=implvm.1
#         -DCOMPLETION=implvm.bash -P HelpPages.cmake
#
# What it reads of a help text (CLI11's layout): the description, up to the
# "Usage: " line; item sections ("Options:", "Positionals:", "...Commands:"),
# one item a line, two spaces in, its description after two or more spaces;
# then paragraphs, and indented lines as literal blocks (examples).
cmake_minimum_required(VERSION 3.20)

foreach(var IN ITEMS IMPLVM VERSION MAN_PAGE COMPLETION)
    if(NOT DEFINED ${var})
        message(FATAL_ERROR "HelpPages.cmake: -D${var}=... is required")
    endif()
endforeach()

# CMake lists split on ';' and do not split inside [...]; help texts hold
# both. They, and backslashes, travel as control characters until written.
string(ASCII 1 SEMI)
string(ASCII 2 LBR)
string(ASCII 3 RBR)
string(ASCII 4 BSL)
string(ASCII 5 NL)  # separates the lines of a literal block

set(ITEM_SECTION "^(Positionals|Flags|[A-Za-z ]*[Oo]ptions|[A-Za-z ]*[Cc]ommands):$")
set(COMMAND_SECTION "[Cc]ommands$")
set(MAX_DEPTH 4)

# ---- reading ---------------------------------------------------------------

# Help data of one command, as global properties "<id>.<field>" where id is
# the command path joined by '/' ("implvm", "implvm/snapshot/take"):
#   desc, usage        text
#   sections           section names, in order
#   names.N, descs.N   the items of section N (0-based), parallel lists; each
#                      description starts with '=', so that none is empty
#   blocks             "P<text>" (paragraph) or "E<header><NL><line><NL>..."
#                      (a literal block with the paragraph that introduces it)
macro(set_field field value)
    set_property(GLOBAL PROPERTY "${id}.${field}" "${value}")
endmacro()
function(get_field out id field)
    get_property(value GLOBAL PROPERTY "${id}.${field}")
    set(${out} "${value}" PARENT_SCOPE)
endfunction()

macro(flush_text)
    if(NOT literal STREQUAL "")
        list(APPEND blocks "E${paragraph}${literal}")
    elseif(NOT paragraph STREQUAL "")
        list(APPEND blocks "P${paragraph}")
    endif()
    set(paragraph "")
    set(literal "")
endmacro()

function(parse_help id text)
    string(REPLACE "\\" "${BSL}" text "${text}")
    string(REPLACE ";" "${SEMI}" text "${text}")
    string(REPLACE "[" "${LBR}" text "${text}")
    string(REPLACE "]" "${RBR}" text "${text}")
    string(REPLACE "\n" ";" lines "${text}")

    set(state desc)
    set(desc "")
    set(usage "")
    set(sections "")
    set(section -1)  # index of the item section being read; -1: none
    set(blocks "")
    set(paragraph "")
    set(literal "")
    foreach(line IN LISTS lines)
        string(REGEX REPLACE " +$" "" line "${line}")
        if(state STREQUAL "desc")
            if(line MATCHES "^Usage: (.*)$")
                set(usage "${CMAKE_MATCH_1}")
                set(state body)
            elseif(NOT line STREQUAL "")
                string(STRIP "${desc} ${line}" desc)
            endif()
            continue()
        endif()

        if(line STREQUAL "")
            flush_text()
            set(section -1)
        elseif(section GREATER_EQUAL 0 AND line MATCHES "^  ")
            if(line MATCHES "^    +([^ ].*)$" AND NOT names STREQUAL "")
                # A description carried over to a line of its own.
                list(POP_BACK descs last)
                if(last STREQUAL "=")
                    list(APPEND descs "=${CMAKE_MATCH_1}")
                else()
                    list(APPEND descs "${last} ${CMAKE_MATCH_1}")
                endif()
            elseif(line MATCHES "^  ([^ ]+( [^ ]+)*)  +([^ ].*)$")
                list(APPEND names "${CMAKE_MATCH_1}")
                list(APPEND descs "=${CMAKE_MATCH_3}")
            elseif(line MATCHES "^  ([^ ].*)$")
                list(APPEND names "${CMAKE_MATCH_1}")
                list(APPEND descs "=")
            endif()
            set_field("names.${section}" "${names}")
            set_field("descs.${section}" "${descs}")
        elseif(line MATCHES "^  (.*)$")
            string(APPEND literal "${NL}${CMAKE_MATCH_1}")
        elseif(line MATCHES "${ITEM_SECTION}")
            flush_text()
            list(APPEND sections "${CMAKE_MATCH_1}")
            list(LENGTH sections count)
            math(EXPR section "${count} - 1")
            set(names "")
            set(descs "")
        else()
            if(NOT literal STREQUAL "")
                flush_text()
            endif()
            string(STRIP "${paragraph} ${line}" paragraph)
        endif()
    endforeach()
    flush_text()

    set_field(desc "${desc}")
    set_field(usage "${usage}")
    set_field(sections "${sections}")
    set_field(blocks "${blocks}")
endfunction()

# The names of a command's subcommands, from its "...Commands:" sections.
function(subcommands out id)
    get_field(sections ${id} sections)
    set(result "")
    set(n 0)
    foreach(section IN LISTS sections)
        if(section MATCHES "${COMMAND_SECTION}")
            get_field(names ${id} "names.${n}")
            foreach(name IN LISTS names)
                string(REGEX REPLACE " .*" "" name "${name}")
                list(APPEND result "${name}")
            endforeach()
        endif()
        math(EXPR n "${n} + 1")
    endforeach()
    set(${out} "${result}" PARENT_SCOPE)
endfunction()

# Reads the help of a command path and, depth first, of every subcommand.
function(read_help)
    set(words implvm ${ARGN})
    list(JOIN words "/" id)
    execute_process(COMMAND "${IMPLVM}" ${ARGN} --help
                    OUTPUT_VARIABLE text ERROR_VARIABLE error RESULT_VARIABLE status)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "implvm ${ARGN} --help exited with ${status}: ${error}")
    endif()
    parse_help(${id} "${text}")

    # A help that is not this command's own (a name implvm does not know
    # gets the top-level help) would repeat forever.
    list(JOIN words " " path)
    get_field(usage ${id} usage)
    if(NOT usage MATCHES "^${path}( |$)")
        message(FATAL_ERROR "implvm ${ARGN} --help: usage '${usage}' is not of '${path}'")
    endif()
    set_property(GLOBAL APPEND PROPERTY ids ${id})

    list(LENGTH ARGN depth)
    subcommands(children ${id})
    foreach(child IN LISTS children)
        if(depth GREATER_EQUAL MAX_DEPTH)
            message(FATAL_ERROR "implvm ${ARGN} ${child}: commands nested too deep")
        endif()
        read_help(${ARGN} ${child})
    endforeach()
endfunction()

read_help()
get_property(ids GLOBAL PROPERTY ids)

# ---- the manual page -------------------------------------------------------

# Text as roff: minus signs that stay ASCII when copied, backslashes as
# glyphs, no line read as a request.
function(roff out text)
    string(REPLACE "-" "\\-" text "${text}")
    string(REPLACE "${BSL}" "\\(rs" text "${text}")
    string(REPLACE "${NL}" "\n" text "${text}")
    string(REPLACE "\n." "\n\\&." text "\n${text}")
    string(REPLACE "\n'" "\n\\&'" text "${text}")
    string(SUBSTRING "${text}" 1 -1 text)
    set(${out} "${text}" PARENT_SCOPE)
endfunction()

# An item's name column: the names bold ("-h,--help" as "-h, --help"), the
# rest (value type, REQUIRED, ...) italic.
function(roff_item_name out name)
    string(REGEX MATCH "^[^ ]+" names "${name}")
    set(rest "")
    if(name MATCHES "^[^ ]+ (.+)$")
        set(rest "${CMAKE_MATCH_1}")
    endif()
    string(REPLACE "," ";" names "${names}")
    set(parts "")
    foreach(n IN LISTS names)
        roff(n "${n}")
        list(APPEND parts "\\fB${n}\\fR")
    endforeach()
    list(JOIN parts ", " text)
    if(NOT rest STREQUAL "")
        roff(rest "${rest}")
        string(APPEND text " \\fI${rest}\\fR")
    endif()
    set(${out} "${text}" PARENT_SCOPE)
endfunction()

function(roff_block out block)
    string(SUBSTRING "${block}" 0 1 kind)
    string(SUBSTRING "${block}" 1 -1 text)
    if(kind STREQUAL "P")
        roff(text "${text}")
        set(result ".PP\n${text}\n")
    else()
        string(FIND "${text}" "${NL}" at)
        string(SUBSTRING "${text}" 0 ${at} header)
        math(EXPR at "${at} + 1")
        string(SUBSTRING "${text}" ${at} -1 lines)
        set(result "")
        if(NOT header STREQUAL "")
            roff(header "${header}")
            set(result ".PP\n${header}\n")
        endif()
        roff(lines "${lines}")
        string(APPEND result ".PP\n.RS 4\n.nf\n${lines}\n.fi\n.RE\n")
    endif()
    set(${out} "${result}" PARENT_SCOPE)
endfunction()

# The item sections of a command but its subcommand lists, less the items
# the top level has already said.
function(roff_items out id)
    get_field(sections ${id} sections)
    set(topNames "")
    set(topDescs "")
    if(NOT id STREQUAL "implvm")
        get_field(topSections implvm sections)
        set(n 0)
        foreach(section IN LISTS topSections)
            get_field(more implvm "names.${n}")
            list(APPEND topNames ${more})
            get_field(more implvm "descs.${n}")
            list(APPEND topDescs ${more})
            math(EXPR n "${n} + 1")
        endforeach()
    endif()
    set(result "")
    set(n 0)
    foreach(section IN LISTS sections)
        if(NOT section MATCHES "${COMMAND_SECTION}")
            get_field(names ${id} "names.${n}")
            get_field(descs ${id} "descs.${n}")
            set(i 0)
            foreach(name IN LISTS names)
                list(GET descs ${i} desc)
                math(EXPR i "${i} + 1")
                list(FIND topNames "${name}" at)
                if(at GREATER_EQUAL 0)
                    list(GET topDescs ${at} topDesc)
                    if(topDesc STREQUAL desc)
                        continue()
                    endif()
                endif()
                roff_item_name(name "${name}")
                string(SUBSTRING "${desc}" 1 -1 desc)
                roff(desc "${desc}")
                string(APPEND result ".TP\n${name}\n")
                if(NOT desc STREQUAL "")
                    string(APPEND result "${desc}\n")
                endif()
            endforeach()
        endif()
        math(EXPR n "${n} + 1")
    endforeach()
    set(${out} "${result}" PARENT_SCOPE)
endfunction()

function(roff_usage out id)
    get_field(usage ${id} usage)
    string(REPLACE "/" " " path "${id}")
    string(LENGTH "${path}" length)
    string(SUBSTRING "${usage}" ${length} -1 rest)
    roff(path "${path}")
    roff(rest "${rest}")
    set(${out} "\\fB${path}\\fR${rest}" PARENT_SCOPE)
endfunction()

# The blocks of a command that none of its ancestors' helps has.
function(own_blocks out id)
    get_field(blocks ${id} blocks)
    string(REPLACE "/" ";" path "${id}")
    set(ancestor "")
    set(seen "")
    list(POP_BACK path)
    foreach(word IN LISTS path)
        string(APPEND ancestor "${word}")
        get_field(more ${ancestor} blocks)
        list(APPEND seen ${more})
        string(APPEND ancestor "/")
    endforeach()
    set(result "")
    foreach(block IN LISTS blocks)
        if(NOT block IN_LIST seen)
            list(APPEND result "${block}")
        endif()
    endforeach()
    set(${out} "${result}" PARENT_SCOPE)
endfunction()

# Paragraphs that every top-level command's help repeats are said once,
# before the commands.
subcommands(topCommands implvm)
set(shared "")
list(GET topCommands 0 first)
own_blocks(candidates implvm/${first})
foreach(block IN LISTS candidates)
    if(NOT block MATCHES "^P")
        continue()
    endif()
    set(everywhere TRUE)
    foreach(command IN LISTS topCommands)
        own_blocks(blocks implvm/${command})
        if(NOT block IN_LIST blocks)
            set(everywhere FALSE)
        endif()
    endforeach()
    list(LENGTH topCommands count)
    if(everywhere AND count GREATER 1)
        list(APPEND shared "${block}")
    endif()
endforeach()

# No hyphenation and a ragged right edge: names of methods, files and
# options must stay whole.
set(page ".TH IMPLVM 1 \"\" \"implvm ${VERSION}\" \"User Commands\"\n.nh\n.ad l\n")
string(APPEND page ".SH NAME\nimplvm \\- inventory and drive the VMs of a Mac's hypervisors through libImplVirtualMachine\n")

string(APPEND page ".SH SYNOPSIS\n.nf\n")
foreach(id IN LISTS ids)
    roff_usage(usage ${id})
    string(APPEND page "${usage}\n")
endforeach()
string(APPEND page ".fi\n")

get_field(desc implvm desc)
roff(desc "${desc}")
string(APPEND page ".SH DESCRIPTION\n${desc}\n")
get_field(topBlocks implvm blocks)
set(exitStatus "")
foreach(block IN LISTS topBlocks)
    if(block MATCHES "^PExit status: (.*)$")
        roff(exitStatus "${CMAKE_MATCH_1}")
    else()
        roff_block(text "${block}")
        string(APPEND page "${text}")
    endif()
endforeach()

roff_items(items implvm)
string(APPEND page ".SH OPTIONS\n${items}")

string(APPEND page ".SH COMMANDS\n")
foreach(block IN LISTS shared)
    roff_block(text "${block}")
    string(APPEND page "${text}")
endforeach()
foreach(id IN LISTS ids)
    if(id STREQUAL "implvm")
        continue()
    endif()
    string(REPLACE "/" " " title "${id}")
    roff(title "${title}")
    get_field(desc ${id} desc)
    roff(desc "${desc}")
    roff_usage(usage ${id})
    roff_items(items ${id})
    string(APPEND page ".SS \"${title}\"\n${desc}\n.PP\n${usage}\n${items}")
    own_blocks(blocks ${id})
    foreach(block IN LISTS blocks)
        if(NOT block IN_LIST shared)
            roff_block(text "${block}")
            string(APPEND page "${text}")
        endif()
    endforeach()
endforeach()

if(NOT exitStatus STREQUAL "")
    string(APPEND page ".SH \"EXIT STATUS\"\n${exitStatus}\n")
endif()
string(APPEND page ".SH \"SEE ALSO\"\n"
       "README.md, docs/implvm.md (every command and option), docs/methods.md (the "
       "module's method functions) and docs/install.md, installed under "
       "share/doc/implvm of implvm's installation prefix.\n")

string(REPLACE "${SEMI}" ";" page "${page}")
string(REPLACE "${LBR}" "[" page "${page}")
string(REPLACE "${RBR}" "]" page "${page}")
file(WRITE "${MAN_PAGE}" "${page}")

# ---- bash completion -------------------------------------------------------

# The words of an option's name column: its names (-h,--help), then its
# value's type ("DIR", "TEXT:{a,b}") unless it takes none.
set(commandCases "")
set(optionCases "")
set(valueCases "")
set(positionalCases "")
foreach(id IN LISTS ids)
    string(REPLACE "/" " " key "${id}")
    string(REGEX REPLACE "^implvm ?" "" key "${key}")  # "" for implvm itself

    subcommands(children ${id})
    list(JOIN children " " children)
    if(NOT children STREQUAL "")
        string(APPEND commandCases "    \"${key}\") REPLY=\"${children}\" ;;\n")
    endif()

    get_field(sections ${id} sections)
    set(options "")
    set(positional 0)
    set(n 0)
    foreach(section IN LISTS sections)
        get_field(names ${id} "names.${n}")
        math(EXPR n "${n} + 1")
        if(section MATCHES "${COMMAND_SECTION}")
            continue()
        endif()
        foreach(name IN LISTS names)
            string(REGEX MATCH "^[^ ]+" first "${name}")
            if(section STREQUAL "Positionals")
                string(APPEND positionalCases "    \"${key} ${positional}\") REPLY=${first} ;;\n")
                math(EXPR positional "${positional} + 1")
                continue()
            endif()
            string(REPLACE "," ";" flags "${first}")
            list(APPEND options ${flags})
            set(type "")
            if(name MATCHES "^[^ ]+ (.+)$")
                set(type "${CMAKE_MATCH_1}")
            endif()
            if(type STREQUAL "" OR type MATCHES "^(REQUIRED|Needs:|Excludes:|\\(Env:)")
                continue()
            endif()
            if(type MATCHES "{([^}]*)}")
                string(REPLACE "," " " choices "${CMAKE_MATCH_1}")
                set(kind "choices:${choices}")
            elseif(type MATCHES "^DIR")
                set(kind dir)
            elseif(type MATCHES "^(PATH|FILE)")
                set(kind file)
            else()
                set(kind text)
            endif()
            foreach(flag IN LISTS flags)
                string(APPEND valueCases "    \"${key} ${flag}\") REPLY=\"${kind}\" ;;\n")
            endforeach()
        endforeach()
    endforeach()
    list(JOIN options " " options)
    string(APPEND optionCases "    \"${key}\") REPLY=\"${options}\" ;;\n")
endforeach()

set(script [=[
# bash completion for implvm, generated from its help texts when implvm was
# built. Commands, options and the values of options that have a fixed set
# are known here; the method names after `implvm call` are asked of implvm
# (`implvm methods`); anything else falls back to file names.

# The subcommands of a command path ("" for implvm itself), in REPLY.
_implvm_commands() {
    case $1 in
@COMMANDS@    *) REPLY="" ;;
    esac
}

# The options of a command path, in REPLY.
_implvm_options() {
    case $1 in
@OPTIONS@    *) REPLY="" ;;
    esac
}

# Succeeds when option $2 of command path $1 (or of implvm itself, whose
# options may follow any command) takes a value; REPLY says which: dir,
# file, text or "choices:A B C".
_implvm_value() {
    case "$1 $2" in
@VALUES@    *)
        [[ -n $1 ]] && _implvm_value "" "$2" && return 0
        return 1 ;;
    esac
}

# The name of positional argument $2 (0-based) of command path $1, in REPLY.
_implvm_positional() {
    case "$1 $2" in
@POSITIONALS@    *) REPLY="" ;;
    esac
}

_implvm() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev="" path="" word module="" i
    local -i positional=0
    COMPREPLY=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        # A value with '=' in it ("--in KEY=VALUE") comes as three words
        # where '=' breaks words: the '=' and the rest belong to the first.
        if [[ $word == = ]]; then
            ((i++))
            continue
        fi
        if [[ $word == -* ]]; then
            if [[ $word != *=* ]] && _implvm_value "$path" "$word" && ((i + 1 < COMP_CWORD)); then
                ((i++))
                # --option=VALUE comes as three words where '=' breaks words.
                if [[ ${COMP_WORDS[i]} == = ]] && ((i + 1 < COMP_CWORD)); then ((i++)); fi
                [[ $word == --module ]] && module=${COMP_WORDS[i]}
            fi
            continue
        fi
        _implvm_commands "$path"
        if ((positional == 0)) && [[ " $REPLY " == *" $word "* ]]; then
            path=${path:+$path }$word
        else
            positional+=1
        fi
    done

    ((COMP_CWORD > 1)) && prev=${COMP_WORDS[COMP_CWORD - 1]}
    [[ $cur == = ]] && cur=""
    if [[ $prev == = ]]; then
        ((COMP_CWORD > 2)) && prev=${COMP_WORDS[COMP_CWORD - 2]}
        # After KEY= in a value: nothing known to offer.
        [[ $prev == -* ]] || return 0
    fi
    if [[ $prev == -* ]] && _implvm_value "$path" "$prev"; then
        if [[ $REPLY == choices:* ]]; then
            COMPREPLY=($(compgen -W "${REPLY#choices:}" -- "$cur"))
        fi
        return 0
    fi

    if [[ $cur == -* ]]; then
        local options
        _implvm_options "$path"
        options=$REPLY
        if [[ -n $path ]]; then
            _implvm_options ""
            for word in $REPLY; do
                [[ " $options " == *" $word "* ]] || options="$options $word"
            done
        fi
        COMPREPLY=($(compgen -W "$options" -- "$cur"))
        return 0
    fi

    _implvm_commands "$path"
    if [[ -n $REPLY ]] && ((positional == 0)); then
        COMPREPLY=($(compgen -W "$REPLY" -- "$cur"))
        return 0
    fi
    _implvm_positional "$path" "$positional"
    case $REPLY in
    METHOD)
        local -a args=(methods)
        [[ -n $module ]] && args=(--module "$module" methods)
        COMPREPLY=($(compgen -W "$("${COMP_WORDS[0]}" "${args[@]}" 2>/dev/null)" -- "$cur")) ;;
    COMMAND)
        _implvm_commands ""
        COMPREPLY=($(compgen -W "$REPLY" -- "$cur")) ;;
    esac
    return 0
}

complete -o bashdefault -o default -F _implvm implvm
]=])
string(REPLACE "@COMMANDS@" "${commandCases}" script "${script}")
string(REPLACE "@OPTIONS@" "${optionCases}" script "${script}")
string(REPLACE "@VALUES@" "${valueCases}" script "${script}")
string(REPLACE "@POSITIONALS@" "${positionalCases}" script "${script}")
string(REPLACE "${SEMI}" ";" script "${script}")
string(REPLACE "${LBR}" "[" script "${script}")
string(REPLACE "${RBR}" "]" script "${script}")
string(REPLACE "${BSL}" "\\" script "${script}")
file(WRITE "${COMPLETION}" "${script}")
