# fish completion for attest(1)

complete -c attest -f
complete -c attest -s h -l help -d 'Print the usage'

complete -c attest -n __fish_use_subcommand -a challenge -d 'Make a context from a device report'
complete -c attest -n __fish_use_subcommand -a verify -d 'Judge the answer to a context'

set -l challenge '__fish_seen_subcommand_from challenge'
complete -c attest -n $challenge -l report -r -F -d 'The report of the device'
complete -c attest -n $challenge -l cb-data -x -d 'A text that the device must repeat'
complete -c attest -n $challenge -l secret-out -r -F -d 'Where the secret goes'

set -l verify '__fish_seen_subcommand_from verify'
complete -c attest -n $verify -l report -r -F -d 'The attested report'
complete -c attest -n $verify -l context -r -F -d 'The context of the challenge'
complete -c attest -n $verify -l secret -r -F -d 'The secret of the challenge'
complete -c attest -n $verify -l ek-digest -x -d 'The known digest of the endorsement key'
complete -c attest -n $verify -l json -d 'Print one object'
