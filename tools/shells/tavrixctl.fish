# SPDX-License-Identifier: LGPL-3.0-or-later
# Completion of tavrixctl for fish. The program itself knows the words.

function __tavrixctl_complete
    set -l words (commandline -opc)
    set -l current (commandline -ct)
    for line in ($words[1] --complete $words[2..-1] "$current" 2>/dev/null)
        switch $line
            case ':files*'
                __fish_complete_path "$current"
            case ':folders*'
                __fish_complete_directories "$current"
            case '*'
                echo $line
        end
    end
end

complete -c tavrixctl -f -a '(__tavrixctl_complete)'
