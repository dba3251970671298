# fish completion for taskman

complete -c taskman -f
complete -c taskman -s h -l help -d 'print a help message'

complete -c taskman -n __fish_use_subcommand -l version -d 'print the version'
complete -c taskman -n __fish_use_subcommand -a get -d 'download files, or the videos of pages'
complete -c taskman -n __fish_use_subcommand -a info -d 'show what the page of a video offers'
complete -c taskman -n __fish_use_subcommand -a top -d 'show the tasks of running managers'
complete -c taskman -n __fish_use_subcommand -a stop -d 'ask tasks to stop'
complete -c taskman -n __fish_use_subcommand -a clean -d 'remove what dead managers left'

function __taskman_proxies
    printf '%s\n' none http:// socks4:// socks4a:// socks5:// socks5h://
end

set -l get -c taskman -n '__fish_seen_subcommand_from get'
complete $get -s i -l input -rF -d 'list of more addresses'
complete $get -s o -l output -rF -d 'name of the file, or -'
complete $get -s d -l dir -xa '(__fish_complete_directories)' -d 'directory for the files'
complete $get -s f -l force -d 'replace existing files'
complete $get -s s -l skip-existing -d 'take existing files for finished ones'
complete $get -l number -d 'add numbers to names that are taken'
complete $get -s J -l server-name -d 'give files the names that the servers give'
complete $get -s N -l newer -d 'replace existing files that have changed at the server'
complete $get -l sha256 -x -d 'digest of the file'
complete $get -l fresh-workers -d 'start a worker process for each file'
complete $get -l no-continue -d 'neither continue partial files nor keep them'
complete $get -s R -l remote-time -d 'give files the time that the server tells'
complete $get -l failed -rF -d 'list what did not finish'
complete $get -l size -x -d 'of a page: the format closest to WxH'
complete $get -l format -x -d 'of a page: the format of that id'
complete $get -s j -l jobs -xa '(seq 8)' -d 'files at once'
complete $get -l per-host -xa '(seq 8)' -d 'files of one host at once'
complete $get -s n -l connections -xa '(seq 10)' -d 'most connections for one file'
complete $get -l limit-rate -xa '100k 1m 10m' -d 'most bytes per second of all files together'
complete $get -l tries -xa '1 5 20 100' -d 'tries in a row without progress'
complete $get -l wait -xa '0 10 60 300' -d 'longest pause between tries'
complete $get -l retry-after -xa '0 30 120 3600' -d 'longest pause that a busy server may ask for'
complete $get -l timeout -x -d 'seconds a server has to answer'
complete $get -s H -l header -x -d 'header of each request, or @FILE'
complete $get -s u -l user -x -d 'login, or @FILE'
complete $get -l netrc -d 'logins of hosts from ~/.netrc'
complete $get -l cacert -rF -d 'authorities to trust'
complete $get -l cert -rF -d 'certificate of the client'
complete $get -l key -rF -d 'key of the certificate'
complete $get -l insecure -d 'check no certificate of a server'
complete $get -s A -l user-agent -x -d 'what the command calls itself'
complete $get -s x -l proxy -xa '(__taskman_proxies)' -d 'proxy, @FILE or none'
complete $get -l worker -rF -d 'program of the workers'
complete $get -l json -d 'events for programs'
complete $get -s q -l quiet -d 'report failures only'
complete $get -s v -l verbose -d 'show what the workers report, too'
complete $get -l progress -xa 'auto bar plain none' -d 'how the progress is shown'
complete $get -l color -xa 'auto always never' -d 'when to use colours'

set -l info -c taskman -n '__fish_seen_subcommand_from info'
complete $info -l size -x -d 'the format closest to WxH'
complete $info -l json -d 'print one JSON object'
complete $info -l url -d 'print just the address of the chosen format'
complete $info -s H -l header -x -d 'header of each request, or @FILE'
complete $info -s u -l user -x -d 'login, or @FILE'
complete $info -l netrc -d 'logins of hosts from ~/.netrc'
complete $info -l cacert -rF -d 'authorities to trust'
complete $info -l cert -rF -d 'certificate of the client'
complete $info -l key -rF -d 'key of the certificate'
complete $info -l insecure -d 'check no certificate of a server'
complete $info -s x -l proxy -xa '(__taskman_proxies)' -d 'proxy, @FILE or none'
complete $info -l worker -rF -d 'program of the workers'

set -l top -c taskman -n '__fish_seen_subcommand_from top'
complete $top -l once -d 'one table, also on a terminal'
complete $top -l json -d 'once, one JSON object a line'

function __taskman_ids
    taskman top --json 2>/dev/null | string match -rg '"id":"([^"]*)"'
end

set -l stop -c taskman -n '__fish_seen_subcommand_from stop'
complete $stop -l all -d 'every task of this user'
complete $stop -a '(__taskman_ids)' -d task

set -l clean -c taskman -n '__fish_seen_subcommand_from clean'
complete $clean -s n -l dry-run -d 'only tell what is there'
complete $clean -l parts -d 'partial files that can be continued, too'
