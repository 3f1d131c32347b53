# SPDX-License-Identifier: LGPL-3.0-or-later
# Completion of tavrixctl for fish. The program itself knows the words.

function __tavrixctl_complete
    set -l words (commandline -opc)
    set -l current (commandline -ct)
    # The program takes "--file=map" as three words.
    set -l lead
    if string match -q -- '--*=*' "$current"
        set -l parts (string split -m 1 = -- "$current")
        set words $words $parts[1] =
        set lead "$parts[1]="
        set current "$parts[2]"
    end
    for line in ($words[1] --complete $words[2..-1] "$current" 2>/dev/null)
        switch $line
            case ':files*'
                for path in (__fish_complete_path "$current")
                    printf '%s\n' "$lead$path"
                end
            case ':folders*'
                for path in (__fish_complete_directories "$current")
                    printf '%s\n' "$lead$path"
                end
            case '*'
                printf '%s\n' "$lead$line"
        end
    end
end

complete -c tavrixctl -f -a '(__tavrixctl_complete)'
