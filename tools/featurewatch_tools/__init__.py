"""What the outside party's commands share. Nothing of it comes from the agent: it is a second opinion on it."""
