# Completion of zelctl(1) for fish; what there is to offer zelctl knows itself.

function __zelctl_complete
    set -l words (commandline --tokenize --cut-at-cursor --current-process)
    set -l current (commandline --current-token --cut-at-cursor)
    set -l program $words[1]
    set -e words[1]
    set -l lines ($program --complete $words "$current" 2>/dev/null)
    if string match --quiet \t'*' "$lines[1]"
        set -l option (string match --regex -- '^--[^=]*=' "$current")
        for path in (__fish_complete_path (string replace --regex -- '^--[^=]*=' '' "$current"))
            echo "$option$path"
        end
    else
        string join -- \n $lines
    end
end

complete --command zelctl --no-files --arguments '(__zelctl_complete)'
