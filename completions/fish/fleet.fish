# fish completion for fleet(1)

complete -c fleet -f
complete -c fleet -s h -l help -d 'Print the usage'
complete -c fleet -n __fish_use_subcommand -l registry -r -F -d 'Path or URL of the registry'

complete -c fleet -n __fish_use_subcommand -a enrol -d 'Take a device into the registry'
complete -c fleet -n __fish_use_subcommand -a import -d 'Take the list of the factory'
complete -c fleet -n __fish_use_subcommand -a challenge -d 'Make a challenge'
complete -c fleet -n __fish_use_subcommand -a verify -d 'Judge an answer'
complete -c fleet -n __fish_use_subcommand -a retire -d 'Take a device out of service'
complete -c fleet -n __fish_use_subcommand -a list -d 'List all devices'
complete -c fleet -n __fish_use_subcommand -a show -d 'Show a device'
complete -c fleet -n __fish_use_subcommand -a history -d 'List the verdicts on a device'
complete -c fleet -n __fish_use_subcommand -a export -d 'Print everything but the secrets'
complete -c fleet -n __fish_use_subcommand -a page -d 'Write the fleet as HTML'
complete -c fleet -n __fish_use_subcommand -a migrate -d 'Update an older registry'

set -l enrol '__fish_seen_subcommand_from enrol'
complete -c fleet -n $enrol -l report -r -F -d 'The report of the device'
complete -c fleet -n $enrol -l ek-digest -x -d 'The known digest of the endorsement key'
complete -c fleet -n $enrol -l first-contact -d 'Believe this report'
complete -c fleet -n $enrol -l label -x -d 'A text for people'

set -l challenge '__fish_seen_subcommand_from challenge'
complete -c fleet -n $challenge -l serial -x -d 'The serial number'
complete -c fleet -n $challenge -l all -d 'All enrolled devices'
complete -c fleet -n $challenge -l cb-data -x -d 'A text that the device must repeat'
complete -c fleet -n $challenge -l valid -x -d 'How many seconds an answer is taken'

complete -c fleet -n '__fish_seen_subcommand_from import verify' -F
complete -c fleet -n '__fish_seen_subcommand_from verify list show history' -l json -d 'Print JSON'
complete -c fleet -n '__fish_seen_subcommand_from page' -l output -r -F -d 'Where the page goes'
